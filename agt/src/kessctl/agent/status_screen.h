// The picture of `kessctl status --watch`: an agent on one screen, whatever its size.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "agent/look_history.h"
#include "agent/status_report.h"

namespace kessctl {

struct screen_view {
    std::size_t lines = 24;
    std::size_t columns = 80;
    double interval_sec = 2;
    report_options report; // of the list: services or else processes, its filter, its order; colour
    bool wide_glyphs = false; // the terminal shows UTF-8
    bool paused = false;
    bool typing = false; // the filter
};

// At most so many lines of at most so many columns, without line ends: the verdict first, the keys
// last. Escape sequences are in them only with colour, and never from what others wrote.
std::vector<std::string> draw_screen(const agent_snapshot& now, const agent_diagnosis& found,
                                     const look_history& history, const screen_view& view);

// The order of the list that follows the one that the view has.
std::string next_order(const report_options& report);

} // namespace kessctl
