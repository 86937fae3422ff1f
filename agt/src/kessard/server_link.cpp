// Exchanges with the central server.
#include "server_link.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "log_printf.h"
#include "settings.h"
#include "shortage.h"
#include "state_file.h"
#include "tcp_base.h"
#include "tcp_recv.h"
#include "tcp_send.h"
#include "tls_policy.h"
#include "wait.h"

namespace kessard {
namespace {

constexpr int CONNECT_LIMIT_MS =
    180000; // a look-up of the name, a server whose packets are dropped, a handshake
constexpr int ANSWER_SOON_MS = 20; // as long as lines may wait for the answer that belongs to them

// Of a length that a failed call returned, errno being that of the call.
int error_of(int length) {
    if (length == 0 || (length == -1 && errno == EPIPE))
        return STATE_SERVER_CLOSED;
    return length == -2 || errno == EAGAIN ? int{STATE_SERVER_NO_ANSWER} : errno;
}

void log_no_answer(const exchange_texts& texts, int length) {
    if (agt::cancelled())
        return;
    if (length == -2 && texts.late != nullptr)
        agt::log_printf("%s", texts.late);
    else
        agt::log_printf(texts.no_answer, length);
}

} // namespace

int init_tcp_client(const char* ipaddr, int port) {
    const long_step connecting(CONNECT_LIMIT_MS);
    const int sockfd = agt::create_tcp_client_session(ipaddr, port, 0);
    if (sockfd < 0) {
        server_error = errno == 0 ? int{STATE_SERVER_NAME} : errno;
        log_shortage("connection to the server", errno);
    }
    if (sockfd < 0 || secure_server_socket(sockfd, ipaddr))
        return sockfd;
    server_error = STATE_SERVER_TLS;
    agt::close_tcp_session(sockfd);
    return -1;
}

int connect_server() {
    const server_address server = get_server_address();
    const int sockfd = init_tcp_client(server.srv_ipaddr, server.srv_cmd_port);
    if (sockfd < 0 && !agt::cancelled())
        agt::log_printf("<!> server connection fail. (ip %s, port %d) ", server.srv_ipaddr,
                        server.srv_cmd_port);
    return sockfd;
}

bool put_host_name(char* field, std::size_t size) {
    if (gethostname(field, size) == 0)
        return true;
    agt::log_printf("<!> gethostname error..");
    return false;
}

void set_header(TCP_CMD_MSG* msg, char type) {
    static constexpr unsigned char magic[] = TCP_CMD_MAGIC_BYTES;
    std::memcpy(msg->hdr.magic_bit, magic, sizeof magic);
    msg->hdr.msg_type[0] = type;
}

int send_msg(int sockfd, const TCP_CMD_MSG& msg) {
    return agt::send_tcp_data(sockfd, &msg, sizeof msg);
}

bool send_request(int sockfd, char type, TCP_CMD_MSG* request, const exchange_texts& texts,
                  int* slen) {
    set_header(request, type);
    const int length = send_msg(sockfd, *request);
    if (length < 1)
        server_error = error_of(length);
    if (slen != nullptr)
        *slen = length;
    if (length >= 1 && texts.sent != nullptr)
        agt::log_printf("%s", texts.sent);
    else if (length < 1 && !agt::cancelled())
        agt::log_printf(texts.not_sent, length);
    return length >= 1;
}

bool receive_answer(int sockfd, TCP_CMD_MSG* answer, const exchange_texts& texts, int* rlen) {
    const int length = agt::recv_tcp_data_soon(sockfd, answer, sizeof *answer, RECV_TIMEOUT_SEC,
                                               ANSWER_SOON_MS, agt::flush_log);
    if (rlen != nullptr)
        *rlen = length;
    if (length < 1) {
        const int error = error_of(length);
        log_no_answer(texts, length);
        server_error = log_server_failure(sockfd) ? int{STATE_SERVER_TLS} : error;
        return false;
    }
    if (texts.no_magic == nullptr || agt::magic_bit_check(sockfd, answer) == 1)
        return true;
    agt::log_printf(texts.no_magic, sockfd, length);
    return false;
}

exchange_result exchange(int sockfd, char type, TCP_CMD_MSG* request, TCP_CMD_MSG* answer,
                         const exchange_texts& texts, exchange_lengths* lengths) {
    exchange_lengths unasked;
    exchange_lengths& out = lengths == nullptr ? unasked : *lengths;
    if (!send_request(sockfd, type, request, texts, &out.slen))
        return exchange_result::not_sent;
    return receive_answer(sockfd, answer, texts, &out.rlen) ? exchange_result::answered
                                                            : exchange_result::not_answered;
}

} // namespace kessard
