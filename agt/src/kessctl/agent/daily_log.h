// The daily logs of an agent, read message by message, from the newest file backwards where only
// the end is wanted, and on into the files of later days.
//
// A message is a line that begins with its time, and the lines behind it that do not. The year is
// that of the file's name. Files are read in blocks, never as a whole: what a file is longer than
// what is wanted of it costs nothing.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "unique_fd.h"

namespace kessctl {

// By the mark that a message begins with: "(i)", "(I)" or ">>", and "<!>".
enum class log_level { unmarked, info, warning };

struct log_entry {
    std::string time; // "2026-11-23 10:00:00"; empty for lines at the start that have none
    log_level level = log_level::unmarked;
    std::string text; // without the time and the last line end; bytes as they are in the file
};

// Where to begin.
struct log_start {
    std::string since;                     // a time as above; empty: no limit
    std::optional<std::size_t> count;      // of the last messages
    log_level least = log_level::unmarked; // of the messages counted
};

// Where the daemon of a configuration writes its log, relative paths taken under `home`.
std::string log_directory(const std::string& cfg_file, const std::string& home);

// One file, read at any place; what was read last stays.
class log_file {
  public:
    // Without a path it is not valid, and neither is what is no regular file.
    log_file() = default;
    explicit log_file(const std::string& path);

    bool valid() const { return fd_.valid(); }
    off_t size() const;
    // Whether another file, or the same, has this path now; not when there is none.
    bool replaced_at(const std::string& path) const;

    // The line that begins at `at`, with its line end if it has one, cut where it is too long;
    // empty at the end of the file.
    std::string line_at(off_t at);
    // The first bytes of it, as many as its time and mark need.
    std::string_view head_at(off_t at);
    // Where the line begins that the byte before `end` belongs to; a line end there is its own.
    off_t line_start(off_t end);
    // Where the line behind the one at `at` begins, or somewhere behind the end of the file.
    off_t next_line(off_t at);

  private:
    std::string_view from(off_t at);
    std::string_view before(off_t end);
    void load(off_t at);

    agt::unique_fd fd_;
    off_t begin_ = 0; // of what was read last
    std::string block_;
};

class log_reader {
  public:
    // One that follows takes a last line only with its end, since more of it may come.
    log_reader(std::string directory, bool follow)
        : directory_(std::move(directory)), follow_(follow) {}

    // Goes to the first message wanted. Empty, or why not; without a file it is no fault to follow
    // one that is to come.
    [[nodiscard]] std::string open(const log_start& start);

    // The next message, of the next day's file where one has ended. False when there is none, by
    // now or because of fault().
    [[nodiscard]] bool next(log_entry* out);

    const std::string& fault() const { return fault_; }
    bool has_file() const { return file_.valid(); }

  private:
    std::string path_of(const std::string& day) const;
    std::vector<std::string> days_after(const std::string& day);
    bool open_day(const std::string& day);
    bool read_entry(log_entry* out);
    bool move_on();

    std::string directory_;
    bool follow_;
    std::string day_; // of the file that is open
    log_file file_;
    off_t at_ = 0;
    bool leaving_ = false; // the file has a successor: what is left of it is taken as it is
    std::string fault_;
};

} // namespace kessctl
