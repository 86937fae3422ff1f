// How fast a count of the daemon grew over the last hour, as a picture in a page.
#pragma once

#include <string>

#include "agent/figure_history.h"

namespace kessctl {

// A heading with the rate now and the peak, and an SVG of the time up to `now`, an hour at most;
// what is not known is left out of the line.
std::string rate_chart(const figure_history& history, counted_figure count, const char* heading,
                       time_t now);

} // namespace kessctl
