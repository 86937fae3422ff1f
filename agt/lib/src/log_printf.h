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
#include <initializer_list>
#include <string_view>

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

// The same of a line made of pieces, which hold no NUL: several times as fast, for long dumps.
void log_line(std::initializer_list<std::string_view> pieces);

// Lines that leave in as few writes as possible: while an object lives, what its thread logs is
// collected and leaves when the buffer is full, when the second changes, on flush() and at the end
// of the object's life. One inside another takes over until it ends. A forked child has none.
class log_batch {
  public:
    log_batch();
    log_batch(const log_batch&) = delete;
    log_batch& operator=(const log_batch&) = delete;
    ~log_batch();

  private:
    friend void flush_log();

    friend class log_message;

    void flush();
    char* start_line();
    void end_line(std::size_t length);

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
