// The commands of the central server: one request, one answer, on the main thread.
#pragma once

#include "client.h"

namespace kessard {

// Reads one request from a connection that has something to read, carries it out and answers it. A
// connection that fails, breaks the protocol or sends an unknown type is dropped; the others stay
// open for the next request.
void cmd_event(const CMD_CLIENT* client);

} // namespace kessard
