// Progress of a file transfer on a terminal.
#include "commands/progress_bar.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "wait.h"
#include "wire/text.h"

namespace kessctl {
namespace {

constexpr int REDRAW_MS = 100;
constexpr std::size_t CELLS = 30;
constexpr std::size_t NAME_WIDTH = 24;
constexpr double MIB = 1024.0 * 1024.0;

} // namespace

progress_bar::progress_bar() : on_terminal_(isatty(STDERR_FILENO) == 1) {}

void progress_bar::show(const std::string& name, std::uint64_t done, std::uint64_t size) {
    const long long now_ms = agt::monotonic_ms();
    if (done == 0)
        start_ms_ = now_ms;
    const bool edge = done == 0 || done == size;
    if (!on_terminal_ || (!edge && now_ms - drawn_ms_ < REDRAW_MS))
        return;
    if (done == 0)
        end_line();
    drawn_ms_ = now_ms;
    const double part = size == 0 ? 1 : static_cast<double>(done) / static_cast<double>(size);
    const double sec = static_cast<double>(std::max(now_ms - start_ms_, 1LL)) / 1000;
    const std::string bar(static_cast<std::size_t>(part * CELLS), '#');
    std::fprintf(stderr, "\r%-*.*s [%-*s] %3d %%  %8.1f of %.1f MiB  %7.1f MiB/s", int{NAME_WIDTH},
                 int{NAME_WIDTH}, printable(name).c_str(), int{CELLS}, bar.c_str(),
                 static_cast<int>(part * 100), static_cast<double>(done) / MIB,
                 static_cast<double>(size) / MIB, static_cast<double>(done) / MIB / sec);
    open_line_ = true;
    if (done == size)
        end_line();
}

void progress_bar::end_line() {
    if (open_line_)
        std::fputc('\n', stderr);
    open_line_ = false;
}

} // namespace kessctl
