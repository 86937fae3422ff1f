// IPv4 TCP sessions: listening, accepting, connecting, closing. They keep no state, write nothing
// to the daily log, and every wait in them ends early with -1 when the calling thread is cancelled
// (wait.h), as those of tcp_send.h and tcp_recv.h do. Descriptors are close-on-exec; a peer that
// hangs up gives an error return, never a signal.
#pragma once

#include <netinet/in.h>

#include <cstddef>

namespace agt {

// Opens a listening socket on `port` of the dotted address `address` (null: any address), with a
// receive time-out of one second that accepted connections inherit, and a backlog of 5. The
// descriptor; -1 and errno on failure.
[[nodiscard]] int open_tcp_server_session(const char* address, int port);

// The same; a failure ends the process with status 1 after a line on standard error.
// Nothing in the programs calls it.
[[nodiscard]] int create_tcp_server_session(const char* address, int port);

inline constexpr int DEAD_PEER_MS = 45000; // until a peer that vanished without a word is noticed

enum class accept_result {
    accepted,
    lost, // the one connection came to nothing, or its peer cannot be named; the socket is in order
    failed // errno says why
};

struct accepted {
    accept_result result;
    int sockfd; // -1 unless accepted
};

// Accepts one connection on the listening `sockfd`, without waiting for one, and fills in the
// peer's address. The connection has TCP_NODELAY set and notices a dead peer.
[[nodiscard]] accepted accept_connection(int sockfd, struct sockaddr_in* peer);

// Accepts one connection like accept_connection. The descriptor. A failing accept closes `sockfd`
// and ends the process with status 1. Nothing in the programs calls it.
[[nodiscard]] int accept_tcpserver_connection(int sockfd, struct sockaddr_in* peer);

// Breaks a connection off whose peer has not confirmed anything for `limit_ms` milliseconds, sent
// bytes and questions to a silent peer alike; one that keeps its window closed counts as dead too.
// Sessions made here have it with DEAD_PEER_MS.
void notice_dead_peer(int sockfd, int limit_ms);

// Connects to `port` of `host` (a name or a dotted address) with TCP_NODELAY set. With
// `nonblocking` the descriptor is non-blocking, and a connection that does not complete at once
// fails. The descriptor, or -1 and errno, 0 for a name that is not known.
[[nodiscard]] int create_tcp_client_session(const char* host, int port, int nonblocking);

// Shuts a connection down and closes it; nothing for -1.
void close_tcp_session(int sockfd);

// Closes this process's descriptor of a connection with which another process goes on.
void leave_tcp_session(int sockfd);

// Milliseconds that `length` bytes may take at the slowest.
constexpr long long slowest_ms(std::size_t length) {
    constexpr int SLOWEST_BYTES_PER_SEC = 4096;
    return static_cast<long long>(length) / SLOWEST_BYTES_PER_SEC * 1000;
}

} // namespace agt
