// The command port's connections.
#include "client.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "access_control.h"
#include "audit.h"
#include "handshakes.h"
#include "log_printf.h"
#include "mutex.h"
#include "process_globals.h"
#include "state_file.h"
#include "tcp_base.h"
#include "tls.h"
#include "tls_policy.h"
#include "wait.h"

namespace kessard {

CMD_CLIENT_LIST client_list;
fd_set readFds;
int maxFd = -1;
int agt_cmd_sockfd = -1;

namespace {

agt::mutex list_mutex; // held while the list changes and while it is copied

cmd_frame frames[MAX_CMD_CLIENT]; // each connection has one, at any place

using state = cmd_frame::state;

// Of the listed connections, those whose frame the predicate accepts.
template <class Predicate> fd_set clients_whose_frame(Predicate accepts) {
    fd_set chosen;
    FD_ZERO(&chosen);
    for (int i = 0; i < client_list.client_num; ++i) {
        const int sockfd = client_list.client[i].sockfd;
        if (accepts(frame_of(sockfd)))
            FD_SET(sockfd, &chosen);
    }
    return chosen;
}

bool is_waiting(int sockfd) {
    return std::any_of(std::begin(frames), std::end(frames), [sockfd](const cmd_frame& one) {
        return one.sockfd() == sockfd && one.waiting_since_ms != 0;
    });
}

CMD_CLIENT* longest_waiting() {
    CMD_CLIENT* chosen = nullptr;
    long long since_ms = 0;
    for (int i = 0; i < client_list.client_num; ++i) {
        const long long own_ms = frame_of(client_list.client[i].sockfd).waiting_since_ms;
        if (own_ms != 0 && (chosen == nullptr || own_ms < since_ms)) {
            chosen = &client_list.client[i];
            since_ms = own_ms;
        }
    }
    return chosen;
}

} // namespace

CMD_CLIENT_LIST copy_cmd_client_list() {
    const agt::lock_guard guard(list_mutex);
    return client_list;
}

int init_tcp_server(const char* ipaddr, int port) {
    const int sockfd = agt::open_tcp_server_session(ipaddr, port);
    if (sockfd >= FD_SETSIZE) {
        agt::log_printf("<!> command port refused. (descriptor %d of %d)", sockfd, FD_SETSIZE);
        agt::close_tcp_session(sockfd);
        errno = 0;
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
        figure_add(figures->connections_refused[STATE_REFUSED_PLACE]);
        audit_connection("refused", sock_addr, sockfd, "too many connections");
        return -1;
    }
    const agt::lock_guard guard(list_mutex);
    CMD_CLIENT& client = client_list.client[client_list.client_num];
    client.sockfd = sockfd;
    frame_of(sockfd).start(sockfd);
    client.sock_addr = sock_addr;
    figure_add(figures->connections_accepted);
    audit_connection("accepted", sock_addr, sockfd, "");
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
    frame_of(sockfd).start(-1);
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
    for (int i = 0; i < client_list.client_num; ++i) {
        const CMD_CLIENT& client = client_list.client[i];
        audit_connection("ended", client.sock_addr, client.sockfd, "the daemon ends");
        agt::close_tcp_session(client.sockfd);
    }
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

cmd_frame& frame_of(int sockfd) {
    auto* found = std::find_if(std::begin(frames), std::end(frames),
                               [sockfd](const cmd_frame& one) { return one.sockfd() == sockfd; });
    if (found != std::end(frames))
        return *found;
    found = std::find_if(std::begin(frames), std::end(frames),
                         [](const cmd_frame& one) { return one.sockfd() == -1; });
    found = found == std::end(frames) ? frames : found;
    found->start(sockfd);
    return *found;
}

void gather_frames(const fd_set& ready) {
    const long long now_ms = agt::monotonic_ms();
    for (const CMD_CLIENT_LIST listed = client_list; const CMD_CLIENT& client : listed.client) {
        if (&client - listed.client >= listed.client_num)
            break;
        cmd_frame& frame = frame_of(client.sockfd);
        if (frame.now() == state::gathering &&
            (FD_ISSET(client.sockfd, &ready) || agt::has_pending_data(client.sockfd)))
            frame.gather();
        frame.check_time(now_ms);
        if (frame.now() == state::over)
            drop_cmd_client(client.sockfd, frame.reason());
    }
}

CMD_CLIENT* next_cmd_client() {
    static int last_sockfd = -1;
    CMD_CLIENT* whole = found_cmd_client(clients_whose_frame([](const cmd_frame& frame) {
        return frame.now() == state::complete && frame.waiting_since_ms == 0;
    }));
    CMD_CLIENT* waiting = longest_waiting();
    const bool just_waited = is_waiting(last_sockfd);
    CMD_CLIENT* chosen = whole == nullptr || (waiting != nullptr && !just_waited) ? waiting : whole;
    last_sockfd = chosen == nullptr ? -1 : chosen->sockfd;
    return chosen;
}

int frames_left_ms(int most) {
    const long long now_ms = agt::monotonic_ms();
    for (int i = 0; i < client_list.client_num; ++i) {
        const cmd_frame& frame = frame_of(client_list.client[i].sockfd);
        most = frame.now() == state::complete || agt::has_pending_data(frame.sockfd())
                   ? 0
                   : frame.left_ms(now_ms, most);
    }
    return most;
}

int cmd_new_connection(int listen_sockfd) {
    sockaddr_in peer{};
    const agt::accepted got = agt::accept_connection(listen_sockfd, &peer);
    if (got.result == agt::accept_result::failed) {
        agt::log_printf("<!> accept error on the command port, the daemon ends. errno : %d", errno);
        exit_status = 1;
        running = 0;
    }
    if (got.result != agt::accept_result::accepted)
        return -1;
    const int sockfd = got.sockfd;
    if (sockfd >= FD_SETSIZE) {
        figure_add(figures->connections_refused[STATE_REFUSED_SHORTAGE]);
        agt::log_printf("<!> command connection refused. (descriptor %d of %d)", sockfd,
                        FD_SETSIZE);
        audit_connection("refused", peer, sockfd, "too many descriptors");
    }
    if (!admit_cmd_client(peer) || sockfd >= FD_SETSIZE) {
        agt::close_tcp_session(sockfd);
        return -1;
    }
    if (!is_tls_on())
        return list_cmd_client(sockfd, peer);
    start_handshake(sockfd, peer);
    return sockfd;
}

int list_cmd_client(int sockfd, const sockaddr_in& peer) {
    if (add_cmd_client(sockfd, peer) < 0) {
        agt::close_tcp_session(sockfd);
        return -1;
    }
    FD_SET(sockfd, &readFds);
    maxFd = std::max(maxFd, sockfd);
    return sockfd;
}

void drop_cmd_client(int sockfd, const char* reason) {
    const CMD_CLIENT* begin = client_list.client;
    const CMD_CLIENT* end = begin + client_list.client_num;
    const auto* client =
        std::find_if(begin, end, [sockfd](const CMD_CLIENT& one) { return one.sockfd == sockfd; });
    if (client != end)
        audit_connection("ended", client->sock_addr, sockfd, reason);
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
