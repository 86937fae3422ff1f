// The daily log: one append-only text file per local day, "<dir>/<title>-YYYY-MM-DD-log", each line
// starting with "MM-DD HH:MM:SS" and two blanks.
//
// Every line, and every batch of lines, reaches the file by one append write, so the lines of
// threads and of forked children never mix. Its time is that of this write. The file changes at the
// first line written on another local day. The logger never reports its own failures: without an
// open file lines are dropped, and opening is tried again only on the next day.
//
// One lock guards the file and all conversion to local time; it is taken around fork, so that a
// child of a threaded process can log. It is the last lock in any order: nothing else is taken
// under it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "line_text.h"

namespace agt {

inline constexpr std::size_t LOG_MESSAGE_SIZE =
    4096; // bytes of a message with its terminator; longer ones are cut
inline constexpr std::size_t LOG_PREFIX_SIZE = 16; // of the time in front of it

// Opens the file of today (`mflag` non-zero) or of the day last seen. `dir` and `title` are kept
// for later days; null keeps the previous ones. 0 when open (also when a file was open already,
// which then stays), -1 when it could not be opened.
int open_log(const char* dir, const char* title, int mflag);

// Counts the lines that could not be written there, by relaxed additions; nowhere before.
void count_lost_lines(std::int64_t* lines);

// Closes the file; later lines are dropped.
void close_log();

// Writes one line, or adds it to the calling thread's batch. An empty message writes nothing.
[[gnu::format(printf, 1, 2)]] void log_printf(const char* fmt, ...);

// A line while it is put together: in the thread's batch, or by itself.
class log_message {
  public:
    log_message();
    log_message(const log_message&) = delete;
    log_message& operator=(const log_message&) = delete;
    // Ends the line; an empty one is left out.
    ~log_message();

    line_text text;

  private:
    char line_[LOG_PREFIX_SIZE + LOG_MESSAGE_SIZE + 1];
};

// The same of a line made of pieces, which hold no NUL: several times as fast, for long dumps.
template <class... Pieces> void log_line(const Pieces&... pieces) {
    log_message message;
    (message.text.add(pieces), ...);
}

// Lines that leave in as few writes as possible: while an object lives, what its thread logs is
// collected and leaves when the buffer is full, when the second changes, on flush() and at the end
// of the object's life. One inside another takes over until it ends. A forked child has none.
class log_batch {
  public:
    log_batch();
    log_batch(const log_batch&) = delete;
    log_batch& operator=(const log_batch&) = delete;
    ~log_batch();

    // Adds a line made of pieces as log_line does, without a look at the clock: for lines without a
    // pause between them, and while no other batch is inside this one.
    template <class... Pieces> void line(const Pieces&... pieces) {
        if (used_ + LONGEST_LINE > CAPACITY)
            flush();
        line_text text(text_ + used_ + LOG_PREFIX_SIZE, LOG_MESSAGE_SIZE - 1);
        (text.add(pieces), ...);
        end_line(text.size());
    }

  private:
    friend void flush_log();

    friend class log_message;

    void flush();
    char* start_line();
    void end_line(std::size_t length) {
        const std::size_t size = LOG_PREFIX_SIZE + length + 1;
        std::memcpy(text_ + used_, &size, sizeof size);
        used_ += size;
        text_[used_ - 1] = '\n';
    }

    static constexpr std::size_t LONGEST_LINE = LOG_PREFIX_SIZE + LOG_MESSAGE_SIZE + 1;
    static constexpr std::size_t CAPACITY = std::size_t{32} * 1024;
    log_batch* outer_;
    std::time_t second_ = 0; // in which the last line was collected
    std::size_t used_ = 0;
    char text_[CAPACITY]; // lines, each with its length in the place of its time
};

// Writes what the calling thread's batch has collected.
void flush_log();

// Converts to local time under the log's lock: the only place where the process does so.
struct tm local_time(std::time_t when);

} // namespace agt
