// The state file: the daemon's own figures, which other processes read (kessard/state_file.h).
//
// `figures` is always there: without the key an object of this process that nobody else sees, with
// it the mapped file. So whoever has something to tell stores it, by single relaxed stores and
// additions, without a lock and without asking. A forked child goes on counting in the file.
#pragma once

#include "kessard/state_file.h"
#include "shared_field.h"

namespace kessard {

// Written once at start, before any thread exists.
extern KESSARD_STATE* figures;

// Takes COMMON / STATE_FILE: makes the file, which takes the place of what stands there, with all
// that was stored so far. What a retrieval of a daemon that was killed left in
// `filter_switched_off` of the file before, in this boot, is carried over. Always true: a file that
// cannot be made is said in the log, and the figures stay in the process.
[[nodiscard]] bool take_state_file(const char* word);

inline void figure_set(std::int64_t& figure, std::int64_t value) {
    agt::shared_store(figure, value);
}

inline void figure_add(std::int64_t& figure, std::int64_t more = 1) {
    std::atomic_ref(figure).fetch_add(more, std::memory_order_relaxed);
}

// The same for a moment: now.
void figure_now(std::int64_t& figure);

// From here on the calling thread is the one of this place (STATE_MAIN, ...) in the file, or is
// none again.
void begin_thread_figures(int place, const char* name, std::int64_t rhythm_ms);
void end_thread_figures();

// A thread's pass begins; nothing for a thread without a place. The longest time to the next one
// may change.
void note_pass();
void set_rhythm(std::int64_t rhythm_ms);

// While it lives, the calling thread may take so long for one step.
class long_step {
  public:
    explicit long_step(std::int64_t limit_ms);
    long_step(const long_step&) = delete;
    long_step& operator=(const long_step&) = delete;
    ~long_step();

  private:
    std::int64_t rhythm_ms_;
};

// One retrieval or upload, as long as it lives. It has failed unless it was good, or the end of the
// daemon cut it off.
class transfer_figures {
  public:
    explicit transfer_figures(STATE_TRANSFER& figures_of_kind);
    transfer_figures(const transfer_figures&) = delete;
    transfer_figures& operator=(const transfer_figures&) = delete;
    ~transfer_figures();

    // It brought so many services to their place.
    void good(int elements);

  private:
    STATE_TRANSFER& of_;
    std::int64_t start_ms_;
    bool good_ = false;
};

// While it lives, the calling thread waits for semaphore `number` of the set in row `row` of the
// shared objects.
class semaphore_wait {
  public:
    semaphore_wait(int row, int number);
    semaphore_wait(const semaphore_wait&) = delete;
    semaphore_wait& operator=(const semaphore_wait&) = delete;
    ~semaphore_wait();
};

} // namespace kessard
