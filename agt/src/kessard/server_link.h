// What every exchange with the central server has in common: connecting to its command port,
// sending a whole command message and receiving the one that answers it.
//
// A failure is logged with the caller's texts; one that the end of the daemon causes, by cutting
// the wait short, is not.
#pragma once

#include <cstddef>

#include "kessard/cmd_msg.h"

namespace kessard {

inline constexpr int RECV_TIMEOUT_SEC = 10;

// Connects to a command port, blocking, with TLS where connections are; the socket, or a negative
// value.
[[nodiscard]] int init_tcp_client(const char* ipaddr, int port);

// Connects to the server's command port; the socket, or a negative value after the log line "<!>
// server connection fail. (ip %s, port %d) ".
[[nodiscard]] int connect_server();

// Writes the host name into a field of `size` bytes; false after the log line "<!> gethostname
// error..".
[[nodiscard]] bool put_host_name(char* field, std::size_t size);

// Writes the magic and the type into the header; msg_type[1] is left alone.
void set_header(TCP_CMD_MSG* msg, char type);

// Sends a whole message as it stands; TCP_CMD_MSG_SIZE, or 0 or -1.
[[nodiscard]] int send_msg(int sockfd, const TCP_CMD_MSG& msg);

// The log lines of an exchange; those that may be null are left out then.
struct exchange_texts {
    const char* not_sent;           // %d: the result of the send
    const char* no_answer;          // %d: the result of the receive
    const char* late = nullptr;     // nothing came within RECV_TIMEOUT_SEC; null: no_answer with -2
    const char* no_magic = nullptr; // %d %d: socket and length; null: the magic is not looked at
    const char* sent = nullptr;     // the request is out
};

// Why the calling thread's last connection to the server, or exchange with it, failed: an errno, or
// STATE_SERVER_*.
inline thread_local int server_error = 0;

enum class exchange_result { answered, not_sent, not_answered };

// The lengths that an exchange leaves behind: of a whole message, or what the failing call
// returned.
struct exchange_lengths {
    int slen = 0;
    int rlen = 0;
};

// Sends a message with this type in its header; the rest of it stays as it stands. False after the
// log line. *slen may be null.
[[nodiscard]] bool send_request(int sockfd, char type, TCP_CMD_MSG* request,
                                const exchange_texts& texts, int* slen = nullptr);

// Receives a whole message, waiting up to RECV_TIMEOUT_SEC for its first byte. False after the log
// line. Lines that the thread has collected leave while the server lets itself be waited for.
[[nodiscard]] bool receive_answer(int sockfd, TCP_CMD_MSG* answer, const exchange_texts& texts,
                                  int* rlen = nullptr);

// The two, one after the other.
[[nodiscard]] exchange_result exchange(int sockfd, char type, TCP_CMD_MSG* request,
                                       TCP_CMD_MSG* answer, const exchange_texts& texts,
                                       exchange_lengths* lengths = nullptr);

} // namespace kessard
