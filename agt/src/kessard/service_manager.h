// The host's service manager, if it started the daemon.
#pragma once

namespace kessard {

// Tells it a state ("READY=1", "STOPPING=1"). Without NOTIFY_SOCKET in the environment nothing
// happens, and the library that knows how is not even loaded; a failure is said in the log.
void notify_service_manager(const char* state);

// Tells it, every few seconds at most, how the daemon is doing when that has changed; and, where it
// keeps a watchdog for this process, that all threads pass. Called by each pass of the command
// loop.
void keep_service_manager_posted();

// Milliseconds between two words to that watchdog, a quarter of its limit; INT_MAX without one.
int service_watchdog_ms();

} // namespace kessard
