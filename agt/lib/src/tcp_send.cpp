// Sending to a TCP peer that may take its time.
#include "tcp_send.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>

#include "tcp_base.h"
#include "tls.h"
#include "wait.h"

namespace agt {
namespace {

constexpr int PROGRESS_LOOK_MS = 500;
constexpr int NO_LIMIT = -1;

thread_local int send_stall_ms = 10000; // longest wait for a peer that takes nothing

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
        const ssize_t sent = send_now(to.sockfd, to.message);
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

// The pages of a file from `offset` on, or none; all are there when it is made, as far as the
// system could get them.
class file_pages {
  public:
    file_pages(int fd, std::size_t length, off_t offset)
        : length_(length),
          at_(mmap(nullptr, length, PROT_READ, MAP_SHARED | MAP_POPULATE, fd, offset)) {}
    file_pages(const file_pages&) = delete;
    file_pages& operator=(const file_pages&) = delete;
    ~file_pages() {
        if (valid())
            munmap(at_, length_);
    }
    bool valid() const { return at_ != MAP_FAILED; }
    void* get() const { return at_; }

  private:
    std::size_t length_;
    void* at_;
};

// The bytes that went out from the page cache: all that the file has of them, or as many as went
// before it was cut off under our hands or could not be read; -1 when the peer did not take them.
// Only the system looks into the pages, so one that is gone is an error of the call.
int send_cached(int sockfd, int fd, off_t offset, int length) {
    struct stat info;
    if (fstat(fd, &info) != 0 || info.st_size <= offset)
        return 0;
    const auto there = static_cast<std::size_t>(std::min<off_t>(length, info.st_size - offset));
    const file_pages pages(fd, there, offset);
    iovec part = {pages.get(), there};
    sending to{sockfd, {}, pages.valid() ? there : 0};
    to.message.msg_iov = &part;
    to.message.msg_iovlen = 1;
    const std::size_t total = to.left;
    while (to.left > 0) {
        const ssize_t sent = send_some(to);
        if (sent < 1) {
            if (errno != EFAULT)
                return -1;
            break;
        }
        drop_sent(to, static_cast<std::size_t>(sent));
    }
    return static_cast<int>(total - to.left);
}

ssize_t read_some(int fd, void* buffer, int length, off_t offset) {
    ssize_t got;
    do
        got = pread(fd, buffer, static_cast<std::size_t>(length), offset);
    while (got < 0 && errno == EINTR);
    return got;
}

} // namespace

void set_send_limit(int limit_ms) {
    send_stall_ms = limit_ms;
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

// What does not go from the page cache is read and sent, which also tells the end of the file from
// a failure of either side.
int send_tcp_file(int sockfd, int fd, off_t offset, void* buffer, int length) {
    const int sent =
        tls_session_of(sockfd) == nullptr ? send_cached(sockfd, fd, offset, length) : 0;
    if (sent == length || sent < 0)
        return sent;
    const auto got = static_cast<int>(read_some(fd, buffer, length - sent, offset + sent));
    if (got < 1)
        return sent;
    return send_tcp_data(sockfd, buffer, got) < 1 ? -1 : sent + got;
}

} // namespace agt
