// The commands of the central server: one request, one answer, on the main thread.
#pragma once

#include "client.h"
#include "kessard/cmd_msg.h"

namespace kessard {

// Reads one request from a connection that has something to read, carries it out and answers it. A
// connection that fails, breaks the protocol or sends an unknown type is dropped; the others stay
// open for the next request.
void cmd_event(const CMD_CLIENT* client);

// Carries out one request, which needs no magic, and fills in what it answers: the type, the result
// code and the fields that the answer has; the rest of `answer` stays. Logs what was received.
// False, with nothing done, when no handler has the request's type (an extended request has none).
// On the main thread.
bool handle_command(TCP_CMD_MSG& request, TCP_CMD_MSG& answer);

} // namespace kessard
