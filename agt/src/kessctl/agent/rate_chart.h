// How fast a count of the daemon grew over the last hour, as a picture in a page.
#pragma once

#include <string>

#include "agent/look_history.h"

namespace kessctl {

// A heading with the rate now and the peak, and an SVG of the time up to the last look, an hour at
// most; what is not known is left out of the line.
std::string rate_chart(const look_history& history, const char* figure, const char* heading);

} // namespace kessctl
