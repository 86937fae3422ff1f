// Who may command the agent, and whether commands of the host's shell and file transfers are among
// what they may ask. Without the two keys everybody may ask for everything.
#pragma once

#include <netinet/in.h>

namespace kessard {

// TRAN_AGENT / REMOTE_COMMANDS_YN: N refuses extended requests. Written once at start.
inline bool remote_commands_yn = true;

// Take the values of TRAN_AGENT / ALLOWED_ADDRESSES (all its words, with commas between them) and
// REMOTE_COMMANDS_YN. What cannot be understood is not taken for "everybody": false then.
[[nodiscard]] bool take_allowed_addresses(const char* value);
[[nodiscard]] bool take_remote_commands(const char* value);

// Whether a peer may connect to the command port. The port of a refused one is named in the log.
bool admit_cmd_client(const sockaddr_in& peer);

// Whether a connection may ask for a remote command or a transfer; a refusal names it in the log.
bool admit_ext_request(const sockaddr_in& peer);

} // namespace kessard
