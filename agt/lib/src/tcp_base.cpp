// IPv4 TCP sessions.
#include "tcp_base.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "host_address.h"
#include "tls.h"
#include "unique_fd.h"
#include "wait.h"

namespace agt {
namespace {

constexpr int LISTEN_BACKLOG = 5;
constexpr int KEEPALIVE_SEC = 5; // of silence, and between two questions to a silent peer

[[noreturn]] void end_process(const char* what) {
    std::perror(what);
    std::exit(1);
}

sockaddr_in address_of(in_addr host, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr = host;
    address.sin_port = htons(static_cast<unsigned short>(port));
    return address;
}

// A connection to a port that nobody listens on can meet itself when the system picks that port for
// its own end.
bool connected_to_itself(int sockfd, const sockaddr_in& peer) {
    sockaddr_in own{};
    socklen_t size = sizeof own;
    return getsockname(sockfd, reinterpret_cast<sockaddr*>(&own), &size) == 0 &&
           own.sin_port == peer.sin_port && own.sin_addr.s_addr == peer.sin_addr.s_addr;
}

bool finish_connect(int sockfd) {
    int error = 0;
    socklen_t size = sizeof error;
    if (wait_fd(sockfd, POLLOUT, -1) != wait_result::ready ||
        getsockopt(sockfd, SOL_SOCKET, SO_ERROR, &error, &size) != 0)
        return false;
    if (error != 0)
        errno = error;
    return error == 0;
}

// Connects without blocking, so that the wait can be cancelled; `flags` are the descriptor's flags
// afterwards.
bool connect_socket(int sockfd, const sockaddr_in& peer, int flags) {
    if (fcntl(sockfd, F_SETFL, flags | O_NONBLOCK) == -1)
        return false;
    const int ret = connect(sockfd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
    const bool in_progress = ret == -1 && errno == EINPROGRESS && (flags & O_NONBLOCK) == 0;
    if (ret != 0 && !(in_progress && finish_connect(sockfd)))
        return false;
    return !connected_to_itself(sockfd, peer) && fcntl(sockfd, F_SETFL, flags) != -1;
}

bool set_nodelay(int sockfd) {
    int value = 0;
    socklen_t size = sizeof value;
    if (getsockopt(sockfd, IPPROTO_TCP, TCP_NODELAY, &value, &size) == -1) {
        std::perror("getsockopt");
        return false;
    }
    value = 1;
    return setsockopt(sockfd, IPPROTO_TCP, TCP_NODELAY, &value, sizeof value) != -1;
}

} // namespace

int open_tcp_server_session(const char* address, int port) {
    unique_fd sockfd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!sockfd.valid())
        return -1;
    const timeval receive_limit = {1, 0};
    setsockopt(sockfd.get(), SOL_SOCKET, SO_RCVTIMEO, &receive_limit,
               sizeof receive_limit); // not fatal
    const int reuse = 1;
    const in_addr host = {address == nullptr ? htonl(INADDR_ANY) : inet_addr(address)};
    const sockaddr_in own = address_of(host, port);
    if (setsockopt(sockfd.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) == -1 ||
        bind(sockfd.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) == -1 ||
        listen(sockfd.get(), LISTEN_BACKLOG) == -1)
        return -1;
    return sockfd.release();
}

int create_tcp_server_session(const char* address, int port) {
    const int sockfd = open_tcp_server_session(address, port);
    if (sockfd < 0)
        end_process("create_tcp_server_session");
    return sockfd;
}

// What accept(2) says of the one connection, not of the listening socket.
bool is_lost_connection(int error) {
    static constexpr int ERRORS[] = {EAGAIN,      ECONNABORTED, EPERM,       EPROTO,
                                     ENOPROTOOPT, EHOSTDOWN,    ENONET,      EHOSTUNREACH,
                                     ENETDOWN,    EOPNOTSUPP,   ENETUNREACH, ETIMEDOUT};
    return std::find(std::begin(ERRORS), std::end(ERRORS), error) != std::end(ERRORS);
}

accepted accept_connection(int sockfd, struct sockaddr_in* peer) {
    unique_fd connection;
    do
        connection.reset(accept4(sockfd, nullptr, nullptr, SOCK_CLOEXEC));
    while (!connection.valid() && errno == EINTR);
    if (!connection.valid())
        return {is_lost_connection(errno) ? accept_result::lost : accept_result::failed, -1};
    socklen_t size = sizeof *peer;
    if (getpeername(connection.get(), reinterpret_cast<sockaddr*>(peer), &size) != 0)
        return {accept_result::lost, -1};
    const int nodelay = 1;
    setsockopt(connection.get(), IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof nodelay);
    notice_dead_peer(connection.get(), DEAD_PEER_MS);
    return {accept_result::accepted, connection.release()};
}

int accept_tcpserver_connection(int sockfd, struct sockaddr_in* peer) {
    accepted got;
    do
        got = accept_connection(sockfd, peer);
    while (got.result == accept_result::lost);
    if (got.result == accept_result::accepted)
        return got.sockfd;
    const int reason = errno;
    close(sockfd);
    errno = reason;
    end_process("accept_tcpserver_connection");
}

void notice_dead_peer(int sockfd, int limit_ms) {
    const struct {
        int level;
        int name;
        int value;
    } options[] = {{SOL_SOCKET, SO_KEEPALIVE, 1},
                   {IPPROTO_TCP, TCP_KEEPIDLE, KEEPALIVE_SEC},
                   {IPPROTO_TCP, TCP_KEEPINTVL, KEEPALIVE_SEC},
                   {IPPROTO_TCP, TCP_KEEPCNT, limit_ms / 1000 / KEEPALIVE_SEC},
                   {IPPROTO_TCP, TCP_USER_TIMEOUT, limit_ms}};
    for (const auto& option : options)
        setsockopt(sockfd, option.level, option.name, &option.value, sizeof option.value);
}

int create_tcp_client_session(const char* host, int port, int nonblocking) {
    in_addr address{};
    if (!resolve_host(host, &address))
        return -1;
    unique_fd sockfd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!sockfd.valid() || !set_nodelay(sockfd.get()))
        return -1;
    const int flags = fcntl(sockfd.get(), F_GETFL);
    if (flags == -1 || !connect_socket(sockfd.get(), address_of(address, port),
                                       nonblocking != 0 ? flags | O_NONBLOCK : flags))
        return -1;
    notice_dead_peer(sockfd.get(), DEAD_PEER_MS);
    return sockfd.release();
}

void close_tcp_session(int sockfd) {
    if (sockfd == -1)
        return;
    end_tls_session(sockfd, true);
    shutdown(sockfd, SHUT_RDWR);
    close(sockfd);
}

void leave_tcp_session(int sockfd) {
    end_tls_session(sockfd, false);
    close(sockfd);
}

} // namespace agt
