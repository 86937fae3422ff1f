// Receiving from a TCP session, whole or not at all (tcp_base.h).
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace agt {

// Receives `length` bytes, waiting up to `timeout` seconds for the first. `length`; -2 when nothing
// came in time; else the value of the failing read: 0 the peer closed, -1 an error. When a read
// behind the first one fails, what had arrived is dropped and reading starts over, so a partial
// frame is never returned. A rest that stalls is an error after the socket's receive time-out
// (without one, after `timeout` seconds), and one that trickles after `timeout` seconds and one
// more for every 4096 bytes of `length`.
int recv_tcp_data_timeout(int sockfd, void* buffer, int length, int timeout);

// The same; calls `late` first when the whole is not there within `soon_ms`.
int recv_tcp_data_soon(int sockfd, void* buffer, int length, int timeout, int soon_ms,
                       void (*late)());

// Receives `length` bytes like recv_tcp_data_timeout, but a read behind the first one that fails or
// stalls ends the reception with its value, and nothing is said on standard output.
int recv_tcp_piece(int sockfd, void* buffer, int length, int timeout);

// Receives what comes next, at most `length` bytes, waiting for it; 0 the peer closed, -1 an error.
ssize_t recv_tcp_some(int sockfd, void* buffer, std::size_t length);

// recv_tcp_data_timeout without a limit on the wait for the first byte and without a word on
// standard output; never -2.
int recv_tcp_data(int sockfd, void* buffer, int length);

// Whether the first four bytes of `buffer` are the magic of a command message: 1 or 0. With a null
// `buffer`, four bytes are read from `sockfd` first; -1 when that fails.
[[nodiscard]] int magic_bit_check(int sockfd, const void* buffer);

} // namespace agt
