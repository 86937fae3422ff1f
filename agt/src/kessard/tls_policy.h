// TLS of the daemon: what section [TLS] asks for, the sessions that follow from it, and what the
// log says of certificates and of peers that are refused. Without the section nothing here does
// anything.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <ctime>
#include <string>

#include "tls_calls.h"

namespace kessard {

// Peers whose TLS was refused since the start, on the command port and of the server.
inline std::atomic<unsigned long> tls_refusals{0};

// Takes section [TLS] of the file as it was judged (fence_cfg) and loads what it names, before the
// first connection. False after a log line: what it names cannot be used.
[[nodiscard]] bool start_tls();

// Whether connections are TLS. Written once at start.
bool is_tls_on();

// A session for a peer that has connected to the command port; null without memory.
agt::tls_session* begin_cmd_session(int sockfd);

// Makes a connection to the server one of TLS, if connections are; blocking. False after a log line
// (none when the end of the daemon cuts it off); the socket stays open.
[[nodiscard]] bool secure_server_socket(int sockfd, const char* ipaddr);

// Logs and counts a server that broke TLS off behind the handshake; false for a socket that did not
// fail so.
bool log_server_failure(int sockfd);

// Logs and counts a peer of the command port whose handshake came to nothing.
void log_tls_refusal(const sockaddr_in& peer, const std::string& why);

// Logs once each that the certificate is valid for less than 30, 7 and 1 days, and no more.
void warn_of_expiry(std::time_t now);

} // namespace kessard
