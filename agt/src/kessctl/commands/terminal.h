// What standard output is.
#pragma once

namespace kessctl {

// Whether it is a terminal that can be drawn on.
bool draws_on_terminal();

// Whether it is one that shows colours, and the user has nothing against them.
bool wants_colour();

} // namespace kessctl
