// The daily logs of an agent.
#include "agent/daily_log.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "config/check_values.h"
#include "host/cfg_value.h"

namespace kessctl {
namespace {

constexpr char BEFORE_DAY[] = "kessard-";
constexpr char BEHIND_DAY[] = "-log";
constexpr std::string_view DAY_SHAPE = "0000-00-00";
constexpr std::string_view TIME_SHAPE = "00-00 00:00:00  ";
constexpr std::size_t HEAD_SIZE = 32;
constexpr std::size_t BLOCK_SIZE = std::size_t{64} * 1024;
constexpr std::size_t LONGEST_ENTRY = std::size_t{1024} * 1024; // more becomes a message of its own

// Whether the text begins with digits where the shape has a zero, and otherwise with the shape.
bool has_shape(std::string_view text, std::string_view shape) {
    return text.size() >= shape.size() &&
           std::equal(shape.begin(), shape.end(), text.begin(), [](char wanted, char c) {
               return wanted == '0' ? c >= '0' && c <= '9' : c == wanted;
           });
}

bool has_time(std::string_view line) {
    return has_shape(line, TIME_SHAPE);
}

log_level level_of(std::string_view line) {
    line.remove_prefix(std::min(TIME_SHAPE.size(), line.size()));
    line.remove_prefix(std::min(line.find_first_not_of('#'), line.size()));
    if (line.starts_with("<!>"))
        return log_level::warning;
    const bool info = line.starts_with("(i)") || line.starts_with("(I)") || line.starts_with(">>");
    return info ? log_level::info : log_level::unmarked;
}

// Where the first message begins whose time, as in its line, is not before `wanted`: halving.
off_t first_since(log_file& file, std::string_view wanted) {
    off_t low = 0;
    off_t high = file.size();
    while (low < high) {
        off_t start = file.line_start(low + (high - low) / 2 + 1);
        while (start > low && !has_time(file.head_at(start)))
            start = file.line_start(start);
        const std::string_view head = file.head_at(start);
        if (has_time(head) && head.substr(0, wanted.size()) >= wanted) {
            high = start;
            continue;
        }
        low = file.next_line(start);
        while (low < high && !has_time(file.head_at(low)))
            low = file.next_line(low);
    }
    return high;
}

// Where the message begins that is the last but *count - 1 behind `least_at`; *count goes down by
// those that were found.
off_t walk_back(log_file& file, off_t least_at, log_level least, std::size_t* count) {
    off_t at = file.size();
    while (at > least_at && *count > 0) {
        at = file.line_start(at);
        const std::string_view head = file.head_at(at);
        if (has_time(head) && level_of(head) >= least)
            --*count;
    }
    return at;
}

} // namespace

std::string log_directory(const std::string& cfg_file, const std::string& home) {
    return full_path(cfg_value(cfg_file, agt::config_key_of("COMMON", "LOG_HOME")), home) +
           agt::LOG_SUBDIRECTORY;
}

log_file::log_file(const std::string& path)
    : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK)) {
    struct stat info {};
    if (valid() && (fstat(fd_.get(), &info) != 0 || !S_ISREG(info.st_mode))) {
        fd_.reset();
        errno = EINVAL;
    }
}

off_t log_file::size() const {
    struct stat info {};
    return fstat(fd_.get(), &info) == 0 ? info.st_size : 0;
}

bool log_file::replaced_at(const std::string& path) const {
    struct stat own {};
    struct stat there {};
    return fstat(fd_.get(), &own) == 0 && stat(path.c_str(), &there) == 0 &&
           (own.st_ino != there.st_ino || own.st_dev != there.st_dev);
}

void log_file::load(off_t at) {
    block_.resize(BLOCK_SIZE);
    const ssize_t got = pread(fd_.get(), block_.data(), block_.size(), at);
    block_.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    begin_ = at;
}

std::string_view log_file::from(off_t at) {
    if (at < begin_ || at >= begin_ + static_cast<off_t>(block_.size()))
        load(at);
    return std::string_view(block_).substr(static_cast<std::size_t>(at - begin_));
}

std::string_view log_file::before(off_t end) {
    if (end <= begin_ || end > begin_ + static_cast<off_t>(block_.size()))
        load(std::max<off_t>(0, end - static_cast<off_t>(BLOCK_SIZE)));
    return std::string_view(block_).substr(0, static_cast<std::size_t>(end - begin_));
}

std::string log_file::line_at(off_t at) {
    std::string line;
    while (line.size() < BLOCK_SIZE && !line.ends_with('\n')) {
        const std::string_view more = from(at + static_cast<off_t>(line.size()));
        if (more.empty())
            break;
        line += more.substr(0, more.find('\n') + (more.find('\n') == more.npos ? 0 : 1));
    }
    return line;
}

std::string_view log_file::head_at(off_t at) {
    std::string_view line = from(at);
    if (line.size() < HEAD_SIZE) {
        load(at);
        line = block_;
    }
    return line.substr(0, std::min(HEAD_SIZE, line.find('\n')));
}

off_t log_file::line_start(off_t end) {
    for (--end; end > 0;) {
        const std::string_view text = before(end);
        const std::size_t line_end = text.rfind('\n');
        if (line_end != text.npos)
            return end - static_cast<off_t>(text.size() - line_end - 1);
        if (text.empty()) // cut off meanwhile
            break;
        end -= static_cast<off_t>(text.size());
    }
    return 0;
}

off_t log_file::next_line(off_t at) {
    for (;;) {
        const std::string_view text = from(at);
        const std::size_t line_end = text.find('\n');
        if (line_end != text.npos)
            return at + static_cast<off_t>(line_end) + 1;
        if (text.empty())
            return at + 1;
        at += static_cast<off_t>(text.size());
    }
}

std::string log_reader::path_of(const std::string& day) const {
    return directory_ + "/" + BEFORE_DAY + day + BEHIND_DAY;
}

// The days behind `day` that have a file, in their order.
std::vector<std::string> log_reader::days_after(const std::string& day) {
    std::vector<std::string> days;
    const std::unique_ptr<DIR, int (*)(DIR*)> all(opendir(directory_.c_str()), closedir);
    if (all == nullptr)
        fault_ = directory_ + ": " + std::strerror(errno);
    while (const dirent* entry = all == nullptr ? nullptr : readdir(all.get())) {
        std::string_view name = entry->d_name;
        if (!name.starts_with(BEFORE_DAY))
            continue;
        name.remove_prefix(std::strlen(BEFORE_DAY));
        if (has_shape(name, DAY_SHAPE) && name.substr(DAY_SHAPE.size()) == BEHIND_DAY &&
            name.substr(0, DAY_SHAPE.size()) > day)
            days.emplace_back(name.substr(0, DAY_SHAPE.size()));
    }
    std::sort(days.begin(), days.end());
    return days;
}

bool log_reader::open_day(const std::string& day) {
    log_file file(path_of(day));
    if (!file.valid()) {
        fault_ = path_of(day) + ": " + std::strerror(errno);
        return false;
    }
    file_ = std::move(file);
    day_ = day;
    at_ = 0;
    return true;
}

std::string log_reader::open(const log_start& start) {
    std::vector<std::string> days = days_after("");
    if (!fault_.empty())
        return fault_;
    if (days.empty())
        return follow_ ? "" : directory_ + " holds no log of kessard";
    const std::string first_day = start.since.substr(0, DAY_SHAPE.size());
    std::size_t wanted = start.count.value_or(0);
    for (auto day = days.rbegin(); day != days.rend(); ++day) {
        const bool beyond = *day < first_day; // opened only to follow it from its end
        if (beyond && has_file())
            break;
        if (!open_day(*day))
            return fault_;
        if (beyond || (start.count && wanted == 0)) {
            at_ = file_.size();
            break;
        }
        if (*day == first_day)
            at_ = first_since(file_, std::string_view(start.since).substr(std::strlen("2026-")));
        if (start.count)
            at_ = walk_back(file_, at_, start.least, &wanted);
        if (start.count && wanted == 0)
            break;
    }
    return "";
}

// The message at the place reached; false when there is no whole one.
bool log_reader::read_entry(log_entry* out) {
    const bool as_it_is = leaving_ || !follow_;
    std::string text;
    bool timed = false;
    while (text.size() < LONGEST_ENTRY) {
        const std::string line = file_.line_at(at_ + static_cast<off_t>(text.size()));
        const bool whole = line.ends_with('\n') || line.size() >= BLOCK_SIZE || as_it_is;
        if (line.empty() || !whole || (!text.empty() && has_time(line)))
            break;
        timed = timed || (text.empty() && has_time(line));
        text += line;
    }
    if (text.empty())
        return false;
    at_ += static_cast<off_t>(text.size());
    out->level = timed ? level_of(text) : log_level::unmarked;
    out->time =
        timed ? day_.substr(0, std::strlen("2026-")) + text.substr(0, TIME_SHAPE.size() - 2) : "";
    text.erase(0, timed ? TIME_SHAPE.size() : 0);
    text.erase(text.size() - (text.ends_with('\n') ? 1 : 0));
    out->text = std::move(text);
    return true;
}

// At the end of a file: whether there is more to read, since it was emptied or has a successor. The
// old one is read once more then, for what was written before the other was made.
bool log_reader::move_on() {
    if (has_file() && file_.size() < at_) // truncated
        return open_day(day_);
    const bool replaced = has_file() && file_.replaced_at(path_of(day_));
    const std::vector<std::string> later = days_after(day_);
    if (later.empty() && !replaced)
        return false;
    leaving_ = has_file() && !leaving_;
    return leaving_ || open_day(replaced ? day_ : later.front());
}

bool log_reader::next(log_entry* out) {
    while (fault_.empty()) {
        if (has_file() && read_entry(out))
            return true;
        if (!move_on())
            return false;
    }
    return false;
}

} // namespace kessctl
