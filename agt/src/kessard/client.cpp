// The command port's connections.
#include "client.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "access_control.h"
#include "log_printf.h"
#include "mutex.h"
#include "tcp_base.h"

namespace kessard {

CMD_CLIENT_LIST client_list;
fd_set readFds;
int maxFd = -1;
int agt_cmd_sockfd = -1;

namespace {

agt::mutex list_mutex; // held while the list changes and while it is copied

} // namespace

CMD_CLIENT_LIST copy_cmd_client_list() {
    const agt::lock_guard guard(list_mutex);
    return client_list;
}

int init_tcp_server(const char* ipaddr, int port) {
    const int sockfd = agt::open_tcp_server_session(ipaddr, port);
    if (sockfd >= FD_SETSIZE) {
        agt::close_tcp_session(sockfd);
        errno = EMFILE;
        return -1;
    }
    if (sockfd < 0)
        return sockfd;
    FD_SET(sockfd, &readFds);
    maxFd = std::max(maxFd, sockfd);
    return sockfd;
}

int init_cmd_client() {
    const agt::lock_guard guard(list_mutex);
    client_list = {};
    return 1;
}

int add_cmd_client(int sockfd, const sockaddr_in& sock_addr) {
    if (client_list.client_num < 0 || client_list.client_num >= MAX_CMD_CLIENT) {
        agt::log_printf("<!> client_list error.. client_num : %d", client_list.client_num);
        return -1;
    }
    const agt::lock_guard guard(list_mutex);
    CMD_CLIENT& client = client_list.client[client_list.client_num];
    client.sockfd = sockfd;
    client.sock_addr = sock_addr;
    return ++client_list.client_num;
}

int del_cmd_client(int sockfd) {
    CMD_CLIENT* end = client_list.client + client_list.client_num;
    CMD_CLIENT* found = std::find_if(client_list.client, end, [sockfd](const CMD_CLIENT& client) {
        return client.sockfd == sockfd;
    });
    if (found == end)
        return -1;
    {
        const agt::lock_guard guard(list_mutex);
        std::move(found + 1, end, found);
        --client_list.client_num;
    }
    if (maxFd == sockfd)
        maxFd = get_maxfd();
    return client_list.client_num;
}

CMD_CLIENT* found_cmd_client(fd_set ready) {
    for (int i = 0; i < client_list.client_num; ++i) {
        if (FD_ISSET(client_list.client[i].sockfd, &ready))
            return &client_list.client[i];
    }
    return nullptr;
}

void close_cmd_client() {
    for (int i = 0; i < client_list.client_num; ++i)
        agt::close_tcp_session(client_list.client[i].sockfd);
}

void show_cmd_client() {
    static constexpr char LINE[] = "---------------------------------------------------";
    std::printf("\n>>>> show CMD_CLIENT, client_num : %d\n%s\n", client_list.client_num, LINE);
    for (int i = 0; i < client_list.client_num; ++i) {
        const CMD_CLIENT& client = client_list.client[i];
        char address[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &client.sock_addr.sin_addr, address, sizeof address);
        std::printf("client#%02d, sockfd : %d\n", i, client.sockfd);
        std::printf("client#%02d, ip_address : %s\n", i, address);
        std::printf("client#%02d, port_no : %d\n%s\n", i, ntohs(client.sock_addr.sin_port), LINE);
    }
    if (client_list.client_num == 0)
        std::printf("%s\n", LINE);
}

int cmd_new_connection(int listen_sockfd) {
    sockaddr_in peer{};
    const int sockfd = agt::accept_tcpserver_connection(listen_sockfd, &peer);
    // A descriptor that the set cannot hold is refused like one too many.
    if (!admit_cmd_client(peer) || sockfd >= FD_SETSIZE || add_cmd_client(sockfd, peer) < 0) {
        agt::close_tcp_session(sockfd);
        return -1;
    }
    FD_SET(sockfd, &readFds);
    maxFd = std::max(maxFd, sockfd);
    return sockfd;
}

void drop_cmd_client(int sockfd) {
    agt::close_tcp_session(sockfd);
    FD_CLR(sockfd, &readFds);
    del_cmd_client(sockfd);
}

int get_maxfd() {
    int highest = agt_cmd_sockfd;
    for (int i = 0; i < client_list.client_num; ++i)
        highest = std::max(highest, client_list.client[i].sockfd);
    return highest;
}

} // namespace kessard
