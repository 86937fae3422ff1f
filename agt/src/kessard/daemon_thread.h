// A thread of the daemon: its handle, its name, and how it is ended.
//
// Threads are not cancelled by the system's pthread_cancel, which would unwind C++ frames from
// inside any call: each one has an event descriptor that ends its waits (wait.h), and leaves its
// loop by itself. A thread that is stuck where no wait of ours can be ended (name resolution) is
// not waited for longer than JOIN_LIMIT_MS; it dies with the process.
//
// One object per thread entry, with static storage. start, cancel and join may be called from any
// thread.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "mutex.h"

namespace kessard {

inline constexpr int JOIN_LIMIT_MS =
    1500; // the end of the daemon waits so long for each of seven threads at most

class daemon_thread {
  public:
    // `start_error` is the log line of a thread that could not be created, `place` and `rhythm_ms`
    // are those in the state file (-1: none).
    constexpr daemon_thread(const char* name, void* (*entry)(void*), const char* start_error,
                            int place = -1, std::int64_t rhythm_ms = 0)
        : name_(name), entry_(entry), start_error_(start_error), place_(place),
          rhythm_ms_(rhythm_ms) {}
    daemon_thread(const daemon_thread&) = delete;
    daemon_thread& operator=(const daemon_thread&) = delete;

    const char* name() const { return name_; }
    const char* start_error() const { return start_error_; }

    // Creates the thread, once a former one has ended: callers start a thread again when it is at
    // its end, and one that is not within JOIN_LIMIT_MS is not started. False then, and when the
    // thread could not be created.
    [[nodiscard]] bool start();

    // Whether there is a thread that was started and not joined.
    bool started() const { return started_; }

    // Ends the waits of the thread, now and later. False when the event could not be sent.
    bool cancel();

    // Waits for the thread to leave its entry; false when the calling thread is cancelled first.
    bool wait_end();

    // Takes back a thread that ends within `limit_ms` milliseconds; false when it does not. Cannot
    // be cancelled.
    bool join(int limit_ms);

  private:
    static void* run(void* self);

    const char* name_;
    void* (*entry_)(void*);
    const char* start_error_;
    int place_;
    std::int64_t rhythm_ms_;
    agt::mutex mutex_;
    pthread_t handle_ AGT_GUARDED_BY(mutex_) = 0;
    std::atomic<bool> started_{false};
    int cancel_fd_ = -1; // an event descriptor: readable when the thread is to end
    int done_fd_ = -1;   // an event descriptor: readable when the thread has ended
};

// Whether the calling thread's loop is to go on: the daemon runs and the thread was not cancelled.
bool keep_running();

// Starts a thread; false after its line in the log.
bool start_thread(daemon_thread& thread);

// Cancels a started thread; logs "<!> cannot cancel <name>." when that fails.
void cancel_thread(daemon_thread& thread);

// Joins a started thread within JOIN_LIMIT_MS; logs "(I) completed join <name>." or "<!> cannot
// join <name>."
void join_thread(daemon_thread& thread);

// Cancels and joins a started thread without a word in the log.
void stop_thread(daemon_thread& thread);

} // namespace kessard
