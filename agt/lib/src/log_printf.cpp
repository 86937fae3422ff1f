// The daily log.
#include "log_printf.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "field.h"
#include "mutex.h"
#include "util.h"

namespace agt {
namespace {

mutex log_lock;
int log_file AGT_GUARDED_BY(log_lock) = -1;
int cur_day AGT_GUARDED_BY(log_lock) = -1; // day of the year in the current file name
std::int64_t* lost_lines AGT_GUARDED_BY(log_lock) = nullptr; // where they are counted
char log_dir[256] AGT_GUARDED_BY(log_lock);
char log_title[256] AGT_GUARDED_BY(log_lock);
std::time_t now AGT_GUARDED_BY(log_lock) = -1; // the second that tm and time_str belong to
struct tm tm AGT_GUARDED_BY(log_lock);
char time_str[LOG_PREFIX_SIZE + 1] AGT_GUARDED_BY(log_lock);

void lock() AGT_ACQUIRES(log_lock) {
    log_lock.lock();
}
void unlock() AGT_RELEASES(log_lock) {
    log_lock.unlock();
}

// The batch that collects what the thread logs. A forked child leaves what stands in it to its
// parent.
thread_local log_batch* batch = nullptr;

constexpr mode_t FILE_MODE = 0644; // at most, whatever the process's mask is

void unlock_in_child() AGT_RELEASES(log_lock) {
    batch = nullptr;
    log_lock.unlock();
}
[[maybe_unused]] const int fork_handlers = pthread_atfork(lock, unlock, unlock_in_child);

// A changed time zone of the host is seen within a minute.
void follow_zone(std::time_t when) AGT_REQUIRES(log_lock) {
    static std::time_t minute = 0;
    if (when / 60 != minute)
        tzset();
    minute = when / 60;
}

void take_time(std::time_t when) AGT_REQUIRES(log_lock) {
    if (when == now)
        return;
    now = when;
    follow_zone(when);
    localtime_r(&now, &tm);
    std::strftime(time_str, sizeof time_str, "%m-%d %T  ", &tm);
}

void close_file() AGT_REQUIRES(log_lock) {
    if (log_file >= 0)
        ::close(log_file);
    log_file = -1;
}

// The day counts as seen whether or not the file opens, so a missing directory costs one attempt a
// day.
int open_file() AGT_REQUIRES(log_lock) {
    char date_str[32];
    char name[256];
    std::strftime(date_str, sizeof date_str, "%Y-%m-%d", &tm);
    cur_day = tm.tm_yday;
    const int length =
        std::snprintf(name, sizeof name, "%s/%s-%s-log", log_dir, log_title, date_str);
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof name)
        return -1;
    constexpr int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    log_file = ::open(name, flags, FILE_MODE);
    struct stat info {};
    if (log_file >= 0 && (fstat(log_file, &info) != 0 || !S_ISREG(info.st_mode)))
        close_file(); // a FIFO or a device would have to be waited for
    return log_file >= 0 ? 0 : -1;
}

void check_day() AGT_REQUIRES(log_lock) {
    if (tm.tm_yday == cur_day || log_title[0] == '\0')
        return;
    close_file();
    open_file();
}

// A full disk loses them.
void append(const char* text, std::size_t length, int lines) AGT_REQUIRES(log_lock) {
    if ((log_file < 0 || !write_whole(log_file, text, length)) && lost_lines != nullptr)
        std::atomic_ref(*lost_lines).fetch_add(lines, std::memory_order_relaxed);
}

// Writes the message with the time in front of it, for which there is room before it, and a line
// end.
void write_line(char* message, std::size_t length) {
    const lock_guard guard(log_lock);
    take_time(std::time(nullptr));
    check_day();
    char* line = message - LOG_PREFIX_SIZE;
    std::memcpy(line, time_str, LOG_PREFIX_SIZE);
    message[length] = '\n';
    append(line, LOG_PREFIX_SIZE + length + 1, 1);
}

} // namespace

int open_log(const char* dir, const char* title, int mflag) {
    const lock_guard guard(log_lock);
    if (log_file >= 0)
        return 0;
    if (dir != nullptr)
        copy_text(log_dir, dir);
    if (title != nullptr)
        copy_text(log_title, title);
    if (mflag != 0)
        take_time(std::time(nullptr));
    return open_file();
}

void count_lost_lines(std::int64_t* lines) {
    const lock_guard guard(log_lock);
    lost_lines = lines;
}

void close_log() {
    const lock_guard guard(log_lock);
    close_file();
}

// cppcheck-suppress uninitMemberVar
log_message::log_message()
    : text(batch == nullptr ? line_ + LOG_PREFIX_SIZE : batch->start_line(), LOG_MESSAGE_SIZE - 1) {
}

log_message::~log_message() {
    if (text.size() == 0)
        return;
    if (batch != nullptr)
        batch->end_line(text.size());
    else
        write_line(line_ + LOG_PREFIX_SIZE, text.size());
}

void log_printf(const char* fmt, ...) {
    log_message message;
    va_list args;
    va_start(args, fmt);
    message.text.add_formatted(fmt, args);
    va_end(args);
}

// cppcheck-suppress uninitMemberVar
log_batch::log_batch() : outer_(batch) {
    if (outer_ != nullptr)
        outer_->flush();
    batch = this;
}

log_batch::~log_batch() {
    flush();
    batch = outer_;
}

// Where the message of the next line goes.
char* log_batch::start_line() {
    const std::time_t second = std::time(nullptr);
    if (second != second_ || used_ + LONGEST_LINE > CAPACITY)
        flush();
    second_ = second;
    return text_ + used_ + LOG_PREFIX_SIZE;
}

void log_batch::flush() {
    if (used_ == 0)
        return;
    const lock_guard guard(log_lock);
    take_time(std::time(nullptr));
    check_day();
    int lines = 0;
    for (std::size_t at = 0, size = 0; at < used_; at += size, ++lines) {
        std::memcpy(&size, text_ + at, sizeof size);
        std::memcpy(text_ + at, time_str, LOG_PREFIX_SIZE);
    }
    append(text_, used_, lines);
    used_ = 0;
}

void flush_log() {
    if (batch != nullptr)
        batch->flush();
}

struct tm local_time(std::time_t when) {
    const lock_guard guard(log_lock);
    struct tm converted {};
    follow_zone(std::time(nullptr));
    localtime_r(&when, &converted);
    return converted;
}

} // namespace agt
