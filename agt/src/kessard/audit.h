// The audit: what is done on the command port, told to the system log.
//
// With AUDIT_YN = Y each event is one datagram to /dev/log of the facility authpriv, without a
// time, which the system log adds: "<PRIORITY>kessard[PID]: EVENT peer=ADDRESS:PORT
// name=CERTIFICATE ...", the text escaped and cut. Sending takes no lock and waits for nobody, so
// it is safe in a child of the threaded process; a line that the system log does not take is lost.
// Each datagram looks the log up by its path, which follows one that is restarted.
#pragma once

#include <netinet/in.h>

namespace kessard {

// TRAN_AGENT / AUDIT_YN. Without Y nothing here does anything.
inline bool audit_yn = false;

// Takes the value of the key and opens the socket. False, with a log line, when it is neither Y nor
// N, or when there is no socket.
[[nodiscard]] bool take_audit(const char* value);

// What became of a connection: "accepted", or, with a reason, "refused" or "ended".
void audit_connection(const char* event, const sockaddr_in& peer, int sockfd, const char* reason);

// The connection whose requests the calling process carries out from here on.
void audit_serves(const sockaddr_in& peer, int sockfd);

// What was done for it: the event, then its fields as printf makes them.
[[gnu::format(printf, 2, 3)]] void audit_request(const char* event, const char* fmt, ...);

} // namespace kessard
