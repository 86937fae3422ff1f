// What the daemon has counted over the last hour, as far as somebody has looked.
#pragma once

#include <deque>
#include <optional>

#include "agent/agent_snapshot.h"

namespace kessctl {

inline constexpr int HISTORY_SEC = 3600;

struct figure_point {
    time_t when = 0;
    long long daemon = 0; // tells one daemon from the next; 0: its counts are not known
    long long notifications = 0;
    long long commands = 0;
};
using figure_history = std::deque<figure_point>; // the newest last
using counted_figure = long long figure_point::*;

// Adds what a snapshot says and forgets what is older than an hour.
void add_figures(figure_history& history, const agent_snapshot& now);

// How much a count grew, a second, from the point before `at` to the one there; nothing for the
// first one and where either of them does not know, or another daemon counts.
std::optional<double> rate_at(const figure_history& history, std::size_t at, counted_figure count);

} // namespace kessctl
