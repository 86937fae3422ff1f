// Blocking IPv4 TCP helpers.
#include "tcp_base.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "unique_fd.h"
#include "util.h"
#include "wait.h"

namespace agt {
namespace {

constexpr int ADDRESS_BITS = 32; // of IPv4
constexpr unsigned char MAGIC[4] = {0x90, 0x85, 0x20, 0x83};
constexpr int LISTEN_BACKLOG = 5;
constexpr int KEEPALIVE_SEC = 5; // of silence, and between two questions to a silent peer
constexpr int PROGRESS_LOOK_MS = 500;
constexpr int SLOWEST_BYTES_PER_SEC = 4096;
constexpr int NO_LIMIT = -1;

thread_local int send_stall_ms = 10000; // longest wait for a peer that takes nothing

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

// Milliseconds that `length` bytes may take at the slowest.
long long slowest_ms(std::size_t length) {
    return static_cast<long long>(length) / SLOWEST_BYTES_PER_SEC * 1000;
}

struct sending {
    int sockfd;
    msghdr message;
    std::size_t left; // bytes that the system has not taken yet
    long long until_ms =
        NO_LIMIT; // monotonic end of the whole, once there was something to wait for
};

// Bytes that the system has taken and the peer has not.
int unsent_bytes(int sockfd) {
    int bytes = 0;
    return ioctl(sockfd, SIOCOUTQ, &bytes) == 0 ? bytes : 0;
}

// Waits until the system takes more. It does so long after the peer has begun to take some, when it
// has queued much, so what the peer has not taken yet is looked at too.
bool wait_room(sending& to) {
    const long long start_ms = monotonic_ms();
    if (to.until_ms == NO_LIMIT)
        to.until_ms = start_ms + send_stall_ms + slowest_ms(to.left);
    long long progress_ms = start_ms;
    for (int unsent = unsent_bytes(to.sockfd);;) {
        const long long now_ms = monotonic_ms();
        const long long left_ms = std::min(to.until_ms, progress_ms + send_stall_ms) - now_ms;
        const int limit_ms = static_cast<int>(std::clamp<long long>(left_ms, 0, PROGRESS_LOOK_MS));
        const wait_result waited = wait_fd(to.sockfd, POLLOUT, limit_ms);
        if (waited != wait_result::timed_out)
            return waited == wait_result::ready;
        if (left_ms <= 0)
            return false;
        if (const int now = unsent_bytes(to.sockfd); now < unsent) {
            progress_ms = monotonic_ms();
            unsent = now;
        }
    }
}

// One gathered write of what is left, waiting for room while the peer takes some; 0 or -1 ends the
// sending.
ssize_t send_some(sending& to) {
    for (;;) {
        const ssize_t sent = sendmsg(to.sockfd, &to.message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0 || (errno != EINTR && errno != EAGAIN))
            return sent;
        if (errno == EAGAIN && !wait_room(to))
            return -1;
    }
}

// Takes what was sent off the front of the parts.
void drop_sent(sending& to, std::size_t sent) {
    to.left -= sent;
    msghdr& message = to.message;
    while (message.msg_iovlen > 0 && sent >= message.msg_iov->iov_len) {
        sent -= message.msg_iov->iov_len;
        ++message.msg_iov;
        --message.msg_iovlen;
    }
    if (message.msg_iovlen > 0) {
        message.msg_iov->iov_base = static_cast<char*>(message.msg_iov->iov_base) + sent;
        message.msg_iov->iov_len -= sent;
    }
}

int send_parts(int sockfd, iovec* parts, std::size_t count) {
    sending to{sockfd, {}, 0};
    to.message.msg_iov = parts;
    to.message.msg_iovlen = count;
    for (std::size_t i = 0; i < count; ++i)
        to.left += parts[i].iov_len;
    const std::size_t total = to.left;
    while (to.left > 0) {
        const ssize_t sent = send_some(to);
        if (sent < 1)
            return static_cast<int>(sent);
        drop_sent(to, static_cast<std::size_t>(sent));
    }
    return static_cast<int>(total);
}

// Milliseconds that a read on the socket may wait: its receive time-out, or `otherwise_ms` when it
// has none.
int read_limit_ms(int sockfd, int otherwise_ms) {
    timeval limit{};
    socklen_t size = sizeof limit;
    if (getsockopt(sockfd, SOL_SOCKET, SO_RCVTIMEO, &limit, &size) != 0 ||
        (limit.tv_sec == 0 && limit.tv_usec == 0))
        return otherwise_ms;
    return static_cast<int>(limit.tv_sec * 1000 + limit.tv_usec / 1000);
}

struct reception {
    int sockfd;
    int stall_ms;       // limit of one read on a socket without a receive time-out
    long long until_ms; // monotonic end of the whole reception, NO_LIMIT without one
    bool print;
};

// One read, waiting for data as a blocking read with a receive time-out would: -1 with EAGAIN when
// it runs out.
ssize_t read_some(const reception& from, void* buffer, std::size_t length) {
    for (;;) {
        const ssize_t got = recv(from.sockfd, buffer, length, MSG_DONTWAIT);
        if (got >= 0 || (errno != EINTR && errno != EAGAIN))
            return got;
        if (errno == EINTR)
            continue;
        const wait_result waited =
            wait_fd(from.sockfd, POLLIN, read_limit_ms(from.sockfd, from.stall_ms));
        if (waited == wait_result::timed_out)
            errno = EAGAIN;
        if (waited != wait_result::ready)
            return -1;
    }
}

bool out_of_time(const reception& from) {
    return from.until_ms != NO_LIMIT && monotonic_ms() >= from.until_ms;
}

// Reads what is missing behind `got` bytes; the value of a failing read when it cannot.
int read_rest(const reception& from, char* buffer, int length, int got) {
    while (got < length) {
        const int missing = length - got;
        const auto more =
            static_cast<int>(read_some(from, buffer + got, static_cast<std::size_t>(missing)));
        if (more < 1) {
            const int error = errno;
            if (from.print)
                say("read error!!, add_len : %d", more);
            errno = error;
            return more;
        }
        if (more == missing && from.print)
            say("#%d bytes are added!\n", missing);
        got += more;
        if (got < length && out_of_time(from)) {
            errno = ETIMEDOUT;
            return -1;
        }
    }
    return length;
}

// Whether a failed rest (its errno) ends the reception instead of starting it over.
bool is_over(const reception& from, int error) {
    return error == ETIMEDOUT || error == ECANCELED || out_of_time(from);
}

// A failing rest drops what had arrived and starts over at the front of the buffer. `got` is what a
// first read has brought already, 0 when there was none.
int recv_whole(const reception& from, void* buffer, int length, int got) {
    for (;; got = 0) {
        errno = 0;
        if (got == 0)
            got = static_cast<int>(read_some(from, buffer, static_cast<std::size_t>(length)));
        if (got == length || got < 1)
            return got;
        const int ret = read_rest(from, static_cast<char*>(buffer), length, got);
        if (ret == length)
            return length;
        if (ret < 0 && is_over(from, errno))
            return -1;
    }
}

// The whole within the limits of recv_tcp_data_timeout, `got` bytes of it being there already.
int recv_within(int sockfd, void* buffer, int length, int timeout, int got) {
    const long long longest_ms = timeout * 1000LL + slowest_ms(static_cast<std::size_t>(length));
    return recv_whole({sockfd, timeout * 1000, monotonic_ms() + longest_ms, true}, buffer, length,
                      got);
}

// The resolver cannot be told to stop, so a name is looked up by a thread of its own, which is left
// behind when the one that asks is cancelled.
struct name_lookup {
    std::string host;
    unique_fd done{eventfd(0, EFD_CLOEXEC)};
    bool found = false;
    in_addr address{};
    int error = 0; // that the resolver met
};
using shared_lookup = std::shared_ptr<name_lookup>;

void look_up(name_lookup& name) {
    char buffer[8192];
    hostent entry{};
    hostent* found = nullptr;
    int error = 0;
    errno = 0;
    name.found =
        gethostbyname_r(name.host.c_str(), &entry, buffer, sizeof buffer, &found, &error) == 0 &&
        found != nullptr && found->h_addrtype == AF_INET && found->h_addr_list[0] != nullptr;
    if (name.found)
        std::memcpy(&name.address, found->h_addr_list[0], sizeof name.address);
    const bool told = errno == EMFILE || errno == ENFILE || errno == ENOMEM;
    name.error = told ? errno : 0; // what else it leaves behind says nothing
}

void* look_up_in_thread(void* handed_over) {
    const std::unique_ptr<shared_lookup> name(static_cast<shared_lookup*>(handed_over));
    look_up(**name);
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t told = write((*name)->done.get(), &one, sizeof one);
    return nullptr;
}

bool start_look_up(const shared_lookup& name) {
    auto handed_over = std::make_unique<shared_lookup>(name);
    pthread_t thread = 0;
    if (!name->done.valid() ||
        pthread_create(&thread, nullptr, look_up_in_thread, handed_over.get()) != 0)
        return false;
    handed_over.release(); // NOLINT(bugprone-unused-return-value): the thread has it
    pthread_detach(thread);
    return true;
}

bool resolve(const char* host, in_addr* out) {
    if (inet_aton(host, out) !=
        0) // the resolver, which a lack of memory can leave locked, is for names
        return true;
    const auto name = std::make_shared<name_lookup>(name_lookup{.host = host});
    if (!start_look_up(name))
        look_up(*name);
    else if (wait_fd(name->done.get(), POLLIN, NO_LIMIT) != wait_result::ready)
        return false;
    *out = name->address;
    errno = name->error;
    return name->found;
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
    if (wait_fd(sockfd, POLLOUT, NO_LIMIT) != wait_result::ready ||
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

void set_send_limit(int limit_ms) {
    send_stall_ms = limit_ms;
}

int magic_bit_check(int sockfd, const void* buffer) {
    unsigned char head[sizeof MAGIC];
    if (buffer == nullptr) {
        if (recv_tcp_data(sockfd, head, sizeof head) < 1)
            return -1;
        buffer = head;
    }
    return std::memcmp(buffer, MAGIC, sizeof MAGIC) == 0 ? 1 : 0;
}

int send_tcp_data(int sockfd, const void* buffer, int length) {
    iovec part = {const_cast<void*>(buffer), static_cast<std::size_t>(length)};
    return send_parts(sockfd, &part, 1);
}

int send_tcp_data2(int sockfd, const void* first, int first_length, const void* second,
                   int second_length) {
    iovec parts[2] = {{const_cast<void*>(first), static_cast<std::size_t>(first_length)},
                      {const_cast<void*>(second), static_cast<std::size_t>(second_length)}};
    return send_parts(sockfd, parts, 2);
}

int recv_tcp_data_timeout(int sockfd, void* buffer, int length, int timeout) {
    const wait_result waited = wait_fd(sockfd, POLLIN, timeout * 1000);
    if (waited != wait_result::ready)
        return waited == wait_result::timed_out ? -2 : -1;
    return recv_within(sockfd, buffer, length, timeout, 0);
}

int recv_tcp_data_ready(int sockfd, void* buffer, int length, int timeout) {
    const auto got =
        static_cast<int>(recv(sockfd, buffer, static_cast<std::size_t>(length), MSG_DONTWAIT));
    if (got < 0 && (errno == EAGAIN || errno == EINTR))
        return recv_tcp_data_timeout(sockfd, buffer, length, timeout);
    return got == length || got < 1 ? got : recv_within(sockfd, buffer, length, timeout, got);
}

int recv_tcp_piece(int sockfd, void* buffer, int length, int timeout) {
    const long long longest_ms = timeout * 1000LL + slowest_ms(static_cast<std::size_t>(length));
    const reception from = {sockfd, timeout * 1000, monotonic_ms() + longest_ms, false};
    if (wait_fd(sockfd, POLLIN, timeout * 1000) == wait_result::timed_out)
        return -2;
    return read_rest(from, static_cast<char*>(buffer), length, 0);
}

int recv_tcp_data(int sockfd, void* buffer, int length) {
    return recv_whole({sockfd, NO_LIMIT, NO_LIMIT, false}, buffer, length, 0);
}

int create_tcp_client_session(const char* host, int port, int nonblocking) {
    in_addr address{};
    if (!resolve(host, &address))
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
    shutdown(sockfd, SHUT_RDWR);
    close(sockfd);
}

bool parse_address_block(const char* text, address_block* out) {
    const char* slash = std::strchr(text, '/');
    const std::string dotted(text, slash == nullptr ? std::strlen(text)
                                                    : static_cast<std::size_t>(slash - text));
    int bits = ADDRESS_BITS;
    if (slash != nullptr) {
        const char* end = slash + std::strlen(slash);
        const auto [stop, error] = std::from_chars(slash + 1, end, bits);
        if (error != std::errc() || stop != end || bits < 0 || bits > ADDRESS_BITS)
            return false;
    }
    in_addr address{};
    if (inet_pton(AF_INET, dotted.c_str(), &address) != 1)
        return false;
    out->mask = bits == 0 ? 0 : ~in_addr_t{0} << (ADDRESS_BITS - bits);
    out->address = ntohl(address.s_addr) & out->mask;
    return true;
}

int url_to_ipaddr(const char* host, char* out) {
    if (host == nullptr || *host == '\0')
        return -1;
    char buffer[8192];
    hostent entry{};
    hostent* found = nullptr;
    int error = 0;
    if (gethostbyname_r(host, &entry, buffer, sizeof buffer, &found, &error) != 0 ||
        found == nullptr || found->h_addr_list[0] == nullptr) {
        std::fputs("host error\n", stderr);
        return -2;
    }
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, found->h_addr_list[0], text, sizeof text);
    std::fprintf(stderr, "address : %s, url:%s\n", text, host);
    std::snprintf(out, 20, "%s", text);
    for (char** address = found->h_addr_list; *address != nullptr; ++address) {
        inet_ntop(AF_INET, *address, text, sizeof text);
        std::printf("address : %s\n", text);
    }
    return 0;
}

} // namespace agt
