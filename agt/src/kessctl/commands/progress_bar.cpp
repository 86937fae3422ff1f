// Progress of a file transfer on a terminal.
#include "commands/progress_bar.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "commands/columns.h"
#include "wait.h"
#include "wire/text.h"

namespace kessctl {
namespace {

constexpr int REDRAW_MS = 100;
constexpr std::size_t CELLS = 30; // most of a bar, and what it is worth drawing with
constexpr std::size_t LEAST_CELLS = 6;
constexpr std::size_t NAME_WIDTH = 24;
constexpr std::size_t FRAME = 4;        // around the cells
constexpr std::size_t ANY_COLUMNS = 80; // of a terminal that does not tell
constexpr double MIB = 1024.0 * 1024.0;

// Name, bar and figures in fewer than `columns`: what room the figures leave is shared by the other
// two, and a bar of few cells is left out. A name of several bytes a character is counted by those.
std::string bar_line(std::string name, double part, const std::string& figures,
                     std::size_t columns) {
    const std::size_t room = columns - std::min(columns, figures.size() + 1);
    const std::size_t cells = std::min(CELLS, (room - std::min(room, FRAME)) / 2);
    const bool has_bar = cells >= LEAST_CELLS;
    const std::size_t width = std::min(NAME_WIDTH, room - (has_bar ? cells + FRAME : 0));
    name.resize(width, ' ');
    std::string bar(static_cast<std::size_t>(part * static_cast<double>(cells)), '#');
    bar.resize(cells, ' ');
    const std::string line = name + " " + (has_bar ? "[" + bar + "] " : "") + figures;
    return line.substr(0, columns - 1);
}

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
    char figures[128];
    std::snprintf(figures, sizeof figures, "%3d %%  %7.1f of %.1f MiB  %7.1f MiB/s",
                  static_cast<int>(part * 100), static_cast<double>(done) / MIB,
                  static_cast<double>(size) / MIB, static_cast<double>(done) / MIB / sec);
    const std::size_t told = columns_of(STDERR_FILENO);
    const std::string line =
        bar_line(printable(name), part, figures, told > 0 ? told : ANY_COLUMNS);
    std::fprintf(stderr, "\r%s", line.c_str());
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
