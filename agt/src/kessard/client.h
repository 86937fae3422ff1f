// The command port's connections: at most five, served by the main thread, which alone uses what
// stands here; other threads may take a copy of the list.
#pragma once

#include <netinet/in.h>
#include <sys/select.h>

#include "cmd_frame.h"

namespace kessard {

inline constexpr int MAX_CMD_CLIENT = 5;

struct CMD_CLIENT {
    int sockfd;
    sockaddr_in sock_addr; // the peer
    int send_logs;         // kept for the record's shape, never counted
};

// Entries 0 to client_num-1 are in use, in the order of their arrival.
struct CMD_CLIENT_LIST {
    int client_num;
    CMD_CLIENT client[MAX_CMD_CLIENT];
};

extern CMD_CLIENT_LIST client_list;
extern fd_set readFds;     // the listening socket and every listed connection
extern int maxFd;          // the highest descriptor in readFds
extern int agt_cmd_sockfd; // the listening socket, -1 when none

// Opens the listening socket and adds it to readFds; the socket, or a negative value with errno.
[[nodiscard]] int init_tcp_server(const char* ipaddr, int port);

// A copy of the list, from any thread.
CMD_CLIENT_LIST copy_cmd_client_list();

// Empties the list; 1.
int init_cmd_client();

// Appends a connection; the new number of entries, or -1 with a log line when the list is full.
int add_cmd_client(int sockfd, const sockaddr_in& sock_addr);

// Removes a connection; the new number of entries, or -1 when it is not listed. Lowers maxFd when
// it was the highest. Neither closes it nor clears its bit in readFds.
int del_cmd_client(int sockfd);

// The first listed connection that is in `ready`; null when none is.
CMD_CLIENT* found_cmd_client(fd_set ready);

// The frame that a connection's next request is gathered in.
cmd_frame& frame_of(int sockfd);

// Takes what has come on the connections of `ready` and judges the time of the others; drops those
// whose frame is over.
void gather_frames(const fd_set& ready);

// The connection whose request is to be carried out: the first listed one with a whole frame. In
// turn with those, the one that has waited longest for a request that could not be carried out yet.
// Null when there is none.
CMD_CLIENT* next_cmd_client();

// Milliseconds until a frame is to be looked at without anything coming, at most `most`.
int frames_left_ms(int most);

// Closes every listed connection; the list stays as it is.
void close_cmd_client();

// Prints the list to standard output.
// Nothing in the programs calls it.
void show_cmd_client();

// Accepts one connection and lists it, or starts its handshake where connections are TLS; its
// descriptor, or -1 when it came to nothing or was closed again: not admitted, the list is full, or
// the loop's set cannot hold it. A listening socket that fails is logged and ends the daemon with
// status 1.
int cmd_new_connection(int listen_sockfd);

// Lists a connection that may send requests; its descriptor, or -1 when the list is full, the
// connection then being closed.
int list_cmd_client(int sockfd, const sockaddr_in& peer);

// Closes a connection, takes it out of readFds and off the list; `reason` is for the audit.
void drop_cmd_client(int sockfd, const char* reason);

// The highest of the listed connections and the listening socket.
int get_maxfd();

} // namespace kessard
