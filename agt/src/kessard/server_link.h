// What every exchange with the central server has in common: connecting to its command port, and
// sending and receiving whole command messages.
#pragma once

#include <cstddef>

#include "kessard/cmd_msg.h"

namespace kessard {

inline constexpr int RECV_TIMEOUT_SEC = 10;

// Connects to a command port, blocking; the socket, or a negative value.
int init_tcp_client(const char* ipaddr, int port);

// Connects to the server's command port; the socket, or a negative value after the log line "<!>
// server connection fail. (ip %s, port %d) ".
int connect_server();

// Writes the host name into a field of `size` bytes; false after the log line "<!> gethostname
// error..".
bool put_host_name(char* field, std::size_t size);

// Writes the magic and the type into the header; msg_type[1] is left alone.
void set_header(TCP_CMD_MSG* msg, char type);

// Sends a whole message as it stands; TCP_CMD_MSG_SIZE, or 0 or -1.
int send_msg(int sockfd, const TCP_CMD_MSG& msg);

// Receives a whole message, waiting up to 10 seconds for its first byte; TCP_CMD_MSG_SIZE, -2 when
// none came in time, or 0 or -1.
int recv_msg(int sockfd, TCP_CMD_MSG* msg);

} // namespace kessard
