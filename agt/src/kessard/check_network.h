// The notify link: the persistent connection for active-service notifications, its state, and how
// it comes back.
#pragma once

#include "mutex.h"

namespace kessard {

// Whether the link is usable: 1 or 0. It gates all sending.
int noti_send_flag();

// The link as the watcher sees it: 1 connected or just lost, 2 reconnection failing; 0 before the
// watcher runs.
int send_flag();

// The link's socket, -1 when there is none.
int noti_sockfd();

// Held during an exchange on the socket and while it is closed, so that a descriptor in use is
// never closed under its user. Nothing else is locked under it but the log.
extern agt::mutex noti_socket_mutex;

// The first connect, at start: a limit (ACTIVE_SERVICE_EVENT / ACTIVE_LIMIT, milliseconds) of 0 or
// less leaves the link off, a server that is down leaves it to the watcher. Logs either.
void open_noti_link(int active_limit);

// Marks the link down and logs it. The socket stays open for the watcher to close.
void network_off();

// Marks the link up and logs it.
void network_on();

// Closes the link's socket.
void close_noti_socket();

// Rereads ACTIVE_LIMIT and the server's address from the configuration file, under cfg_mutex, and
// connects the link. 1; -1 when the notifications are off (a limit of 0 or less), a key is missing
// or the connection failed. A new address holds for all later connections of the daemon.
[[nodiscard]] int try_connect();

// Starts the watcher; a failure is logged and the daemon runs without it.
void network_check();

// The watcher's entry: looks after the link once a second and brings a lost one back.
void* network_checker(void* arg);

// Ends the watcher without a word in the log, waiting for it like for any other thread.
void stop_network_check();

// A recovery thread that stands alone: it tries every 3 seconds until the link is up and ends. An
// alternative to the watcher: nothing in the programs calls it.
void* check_network(void* arg);
void th_start_check_network();
void th_cancel_check_network();
void th_join_check_network();

} // namespace kessard
