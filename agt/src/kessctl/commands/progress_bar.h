// Progress of a file transfer on a terminal.
#pragma once

#include <cstdint>
#include <string>

namespace kessctl {

// One line on standard error per file, redrawn a few times a second; nothing when standard error is
// no terminal.
class progress_bar {
  public:
    progress_bar();
    progress_bar(const progress_bar&) = delete;
    progress_bar& operator=(const progress_bar&) = delete;
    ~progress_bar() { end_line(); }

    // Called with 0 bytes when a file starts, and then as it grows.
    void show(const std::string& name, std::uint64_t done, std::uint64_t size);

    // Leaves the line that is drawn, for another text.
    void end_line();

  private:
    bool on_terminal_;
    bool open_line_ = false;
    long long start_ms_ = 0; // of the file
    long long drawn_ms_ = 0;
};

} // namespace kessctl
