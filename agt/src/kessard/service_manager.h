// The host's service manager, if it started the daemon.
#pragma once

namespace kessard {

// Tells it a state ("READY=1", "STOPPING=1"). Without NOTIFY_SOCKET in the environment nothing
// happens, and the library that knows how is not even loaded; a failure is said in the log.
void notify_service_manager(const char* state);

} // namespace kessard
