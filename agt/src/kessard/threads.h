// The threads of the daemon, all of them: the order of their start and of their end.
#pragma once

namespace kessard {

// Starts the threads that run as long as the daemon; one that cannot be created is logged and left
// out.
void start_threads();

// Ends all threads, started or not. Each is waited for no longer than JOIN_LIMIT_MS.
void end_threads();

} // namespace kessard
