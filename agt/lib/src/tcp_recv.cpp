// Receiving from a TCP peer that may take its time.
#include "tcp_recv.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "tcp_base.h"
#include "tls.h"
#include "util.h"
#include "wait.h"

namespace agt {
namespace {

constexpr unsigned char MAGIC[4] = {0x90, 0x85, 0x20, 0x83};
constexpr int NO_LIMIT = -1;

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
        const ssize_t got = recv_now(from.sockfd, buffer, length);
        if (got >= 0 || (errno != EINTR && errno != EAGAIN))
            return got;
        if (errno == EINTR)
            continue;
        const wait_result waited =
            wait_again(from.sockfd, POLLIN, read_limit_ms(from.sockfd, from.stall_ms));
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

} // namespace

int magic_bit_check(int sockfd, const void* buffer) {
    unsigned char head[sizeof MAGIC];
    if (buffer == nullptr) {
        if (recv_tcp_data(sockfd, head, sizeof head) < 1)
            return -1;
        buffer = head;
    }
    return std::memcmp(buffer, MAGIC, sizeof MAGIC) == 0 ? 1 : 0;
}

int recv_tcp_data_timeout(int sockfd, void* buffer, int length, int timeout) {
    const wait_result waited = wait_data(sockfd, timeout * 1000);
    if (waited != wait_result::ready)
        return waited == wait_result::timed_out ? -2 : -1;
    return recv_within(sockfd, buffer, length, timeout, 0);
}

int recv_tcp_data_soon(int sockfd, void* buffer, int length, int timeout, int soon_ms,
                       void (*late)()) {
    const bool soon = wait_data(sockfd, soon_ms) == wait_result::ready;
    const auto got =
        soon ? static_cast<int>(recv_now(sockfd, buffer, static_cast<std::size_t>(length))) : -1;
    const bool nothing = got < 0 && (!soon || errno == EAGAIN || errno == EINTR);
    if (got == length)
        return got;
    const int error = errno;
    late();
    errno = error;
    if (nothing)
        return recv_tcp_data_timeout(sockfd, buffer, length, timeout);
    return got < 1 ? got : recv_within(sockfd, buffer, length, timeout, got);
}

int recv_tcp_piece(int sockfd, void* buffer, int length, int timeout) {
    const long long longest_ms = timeout * 1000LL + slowest_ms(static_cast<std::size_t>(length));
    const reception from = {sockfd, timeout * 1000, monotonic_ms() + longest_ms, false};
    if (wait_data(sockfd, timeout * 1000) == wait_result::timed_out)
        return -2;
    return read_rest(from, static_cast<char*>(buffer), length, 0);
}

ssize_t recv_tcp_some(int sockfd, void* buffer, std::size_t length) {
    return read_some({sockfd, NO_LIMIT, NO_LIMIT, false}, buffer, length);
}

int recv_tcp_data(int sockfd, void* buffer, int length) {
    return recv_whole({sockfd, NO_LIMIT, NO_LIMIT, false}, buffer, length, 0);
}

} // namespace agt
