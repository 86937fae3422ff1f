// Start-up: environment, configuration, and every shared object in its order.
#pragma once

namespace kessard {

// Runs every step of the start-up and stops at the first that fails, with nothing undone. 1, or 0
// on failure.
int init();

} // namespace kessard
