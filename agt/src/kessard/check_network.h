// The notify link: the persistent connection for active-service notifications, its state, and how
// it comes back.
#pragma once

#include <atomic>

#include "mutex.h"

namespace kessard {

// The link's socket, -1 when there is none, and whether the link is usable (1 or 0). The flag gates
// all sending: the notifier takes it down, the watcher brings it up.
extern std::atomic<int> noti_sockfd;
extern std::atomic<int> noti_send_flag;

// The link as the watcher sees it: 1 connected, 2 reconnection failing.
extern std::atomic<int> send_flag;

// Held during an exchange on the socket and while it is closed, so that a descriptor in use is
// never closed under its user. Nothing else is locked under it but the log.
extern agt::mutex noti_socket_mutex;

// Marks the link down and logs it. The socket stays open for the watcher to close.
void network_off();

// Marks the link up and logs it.
void network_on();

// Closes the link's socket.
void close_noti_socket();

// Rereads ACTIVE_LIMIT and the server's address from the configuration file, under cfg_mutex, and
// connects the link. 1; -1 when the notifications are off (a limit of 0 or less), a key is missing
// or the connection failed. A new address holds for all later connections of the daemon.
int try_connect();

// A recovery thread that stands alone: it tries every 3 seconds until the link is up and ends. The
// daemon recovers through its watcher (main_loop.h) and does not start it.
void* check_network(void* arg);
void th_start_check_network();
void th_cancel_check_network();
void th_join_check_network();

} // namespace kessard
