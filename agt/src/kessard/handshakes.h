// TLS handshakes of the command port, beside the requests: who has not finished his takes no place
// of the client list and keeps nobody waiting. Used by the main thread alone.
//
// At most five are under way, each for ten seconds; when a sixth peer comes, the oldest one gives
// way. Whoever is refused is logged and closed.
#pragma once

#include <netinet/in.h>
#include <sys/select.h>

namespace kessard {

// Starts the handshake of an accepted connection, which is owned from here on.
void start_handshake(int sockfd, const sockaddr_in& peer);

// Adds the sockets of the handshakes to the sets of the loop's wait and raises *highest. The set
// for writing is `writing`, emptied first, or null when there is no handshake.
fd_set* watch_handshakes(fd_set* reading, fd_set* writing, int* highest);

// Takes what the sets found ready a step further, refuses those that are late, and hands over
// whoever is done.
void step_handshakes(const fd_set& reading, const fd_set* writing,
                     int (*take)(int sockfd, const sockaddr_in& peer));

// Milliseconds until a handshake is late, at most `most`.
int handshakes_left_ms(int most);

// Closes all of them in this process, without a word to the peers.
void close_handshakes();

} // namespace kessard
