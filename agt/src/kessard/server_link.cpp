// Exchanges with the central server.
#include "server_link.h"

#include <unistd.h>

#include <cstring>

#include "log_printf.h"
#include "settings.h"
#include "tcp_base.h"

namespace kessard {

int init_tcp_client(const char* ipaddr, int port) {
    return agt::create_tcp_client_session(ipaddr, port, 0);
}

int connect_server() {
    const server_address server = get_server_address();
    const int sockfd = init_tcp_client(server.srv_ipaddr, server.srv_cmd_port);
    if (sockfd < 0)
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

int recv_msg(int sockfd, TCP_CMD_MSG* msg) {
    return agt::recv_tcp_data_timeout(sockfd, msg, sizeof *msg, RECV_TIMEOUT_SEC);
}

} // namespace kessard
