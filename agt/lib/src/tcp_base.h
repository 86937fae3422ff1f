// Blocking IPv4 TCP helpers. They keep no state, write nothing to the daily log, and every wait in
// them ends early with -1 when the calling thread is cancelled (wait.h). Descriptors are
// close-on-exec; a peer that hangs up gives an error return, never a signal.
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

// IPv4 addresses that agree with `address` in the bits of `mask`; both in host byte order.
struct address_block {
    in_addr_t address;
    in_addr_t mask;
};

// Takes "192.0.2.7" or "192.0.2.0/24"; false, and `out` is untouched, when it is neither.
[[nodiscard]] bool parse_address_block(const char* text, address_block* out);

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

// How long the calling thread waits for a peer that takes nothing of what it sends; 10 seconds
// without this.
void set_send_limit(int limit_ms);

// Whether the first four bytes of `buffer` are the magic of a command message: 1 or 0. With a null
// `buffer`, four bytes are read from `sockfd` first; -1 when that fails.
[[nodiscard]] int magic_bit_check(int sockfd, const void* buffer);

// Sends the whole of `buffer`. `length` on success, else 0 or -1. A peer that takes nothing for as
// long as set_send_limit says is an error, and one that lets itself be waited for more than 10
// seconds and one more for every 4096 bytes.
int send_tcp_data(int sockfd, const void* buffer, int length);

// Sends two buffers with one gathered write, as one piece; the sum of the lengths, else 0 or -1.
int send_tcp_data2(int sockfd, const void* first, int first_length, const void* second,
                   int second_length);

// Receives `length` bytes, waiting up to `timeout` seconds for the first. `length`; -2 when nothing
// came in time; else the value of the failing read: 0 the peer closed, -1 an error. When a read
// behind the first one fails, what had arrived is dropped and reading starts over, so a partial
// frame is never returned. A rest that stalls is an error after the socket's receive time-out
// (without one, after `timeout` seconds), and one that trickles after `timeout` seconds and one
// more for every 4096 bytes of `length`.
int recv_tcp_data_timeout(int sockfd, void* buffer, int length, int timeout);

// The same on a socket that was found readable: does not look for that a second time.
int recv_tcp_data_ready(int sockfd, void* buffer, int length, int timeout);

// Receives `length` bytes like recv_tcp_data_timeout, but a read behind the first one that fails or
// stalls ends the reception with its value, and nothing is said on standard output.
int recv_tcp_piece(int sockfd, void* buffer, int length, int timeout);

// recv_tcp_data_timeout without a limit on the wait for the first byte and without a word on
// standard output; never -2.
int recv_tcp_data(int sockfd, void* buffer, int length);

// Connects to `port` of `host` (a name or a dotted address) with TCP_NODELAY set. With
// `nonblocking` the descriptor is non-blocking, and a connection that does not complete at once
// fails. The descriptor, or -1 and errno, 0 for a name that is not known.
[[nodiscard]] int create_tcp_client_session(const char* host, int port, int nonblocking);

// Shuts a connection down and closes it; nothing for -1.
void close_tcp_session(int sockfd);

// Writes the first address of `host` in dotted form into `out` (20 bytes). 0; -1 for an empty name;
// -2 when it cannot be resolved. Shows the addresses on standard output and standard error.
// Nothing in the programs calls it.
int url_to_ipaddr(const char* host, char* out);

} // namespace agt
