// Sending on a TCP session, whole or not at all (tcp_base.h).
#pragma once

#include <sys/types.h>

namespace agt {

// How long the calling thread waits for a peer that takes nothing of what it sends; 10 seconds
// without this.
void set_send_limit(int limit_ms);

// Sends the whole of `buffer`. `length` on success, else 0 or -1. A peer that takes nothing for as
// long as set_send_limit says is an error, and one that lets itself be waited for more than 10
// seconds and one more for every 4096 bytes.
int send_tcp_data(int sockfd, const void* buffer, int length);

// Sends two buffers with one gathered write, as one piece; the sum of the lengths, else 0 or -1.
int send_tcp_data2(int sockfd, const void* first, int first_length, const void* second,
                   int second_length);

// Sends `length` bytes of a file from `offset` on, fewer at its end, within the same limits: from
// the page cache, or through `buffer`, which has room for them, where the session is TLS or the
// file cannot be mapped there. The bytes that the file gave, 0 also when it cannot be read; -1 when
// the peer did not take them.
int send_tcp_file(int sockfd, int fd, off_t offset, void* buffer, int length);

} // namespace agt
