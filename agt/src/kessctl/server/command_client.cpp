// A connection to a daemon's command port.
#include "server/command_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <cerrno>
#include <cstring>

#include "tcp_base.h"
#include "tcp_recv.h"
#include "tcp_send.h"
#include "tls.h"
#include "wait.h"
#include "wire/frame.h"

namespace kessctl {
namespace {

constexpr int RESET_LIMIT_MS = 300;

// Ends the waits of this thread after `limit_ms`.
class time_limit {
  public:
    explicit time_limit(int limit_ms) : timer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)) {
        itimerspec limit{};
        limit.it_value.tv_sec = limit_ms / 1000;
        limit.it_value.tv_nsec = limit_ms % 1000 * 1000000L + 1;
        timerfd_settime(timer_.get(), 0, &limit, nullptr);
        agt::set_cancel_fd(timer_.get());
    }
    time_limit(const time_limit&) = delete;
    time_limit& operator=(const time_limit&) = delete;
    ~time_limit() { agt::set_cancel_fd(-1); }

  private:
    agt::unique_fd timer_;
};

} // namespace

bool command_client::fail(const std::string& what) {
    error_ = what + " (" + peer_ + ")";
    return false;
}

bool command_client::failed_transfer(const char* doing, int ret) {
    const int error = ret == 0 ? 0 : errno;
    timed_out_ = error == ECANCELED;
    if (timed_out_)
        return fail(std::string(doing) + ": no end within the time limit");
    const std::string reason = std::strerror(error);
    const std::string of_tls = error == 0 ? "" : agt::tls_failure(sockfd_.get());
    const bool closed = of_tls.empty() && (error == 0 || error == ECONNRESET || error == EPIPE);
    if (closed && !heard_)
        closed_early_ = error == 0 && !is_reset_late() ? early_close::read : early_close::unread;
    if (closed)
        return fail(std::string(doing) + ": the agent closed the connection");
    return fail(std::string(doing) + ": " + (of_tls.empty() ? reason : "TLS: " + of_tls));
}

// Whether the agent, which has closed the connection, did so with something unread: what was sent
// after that is answered by a reset.
bool command_client::is_reset_late() const {
    pollfd watched = {sockfd_.get(), 0, 0};
    return poll(&watched, 1, RESET_LIMIT_MS) > 0;
}

bool command_client::connect(const std::string& host, int port, int limit_ms) {
    peer_ = host + " port " + std::to_string(port);
    const time_limit limit(limit_ms);
    close();
    heard_ = false;
    closed_early_ = early_close::not_closed;
    errno = 0;
    sockfd_.reset(agt::create_tcp_client_session(host.c_str(), port, 0));
    if (sockfd_.valid()) {
        sockaddr_in own{};
        socklen_t size = sizeof own;
        getsockname(sockfd_.get(), reinterpret_cast<sockaddr*>(&own), &size);
        own_address_ = own.sin_addr;
        return identity_ == nullptr || secure(host, limit_ms);
    }
    return fail(std::string("cannot connect: ") +
                (errno != 0 ? std::strerror(errno) : "no such host"));
}

bool command_client::secure(const std::string& host, int limit_ms) {
    std::string why;
    agt::tls_session* session = identity_->begin(sockfd_.get(), agt::tls_side::connects,
                                                 {server_name_.empty() ? host : server_name_});
    if (agt::secure_socket(sockfd_.get(), session, limit_ms, &why))
        return true;
    sockfd_.reset();
    return fail("cannot connect: TLS: " + why);
}

void command_client::close() {
    agt::end_tls_session(sockfd_.get(), true);
    sockfd_.reset();
}

bool command_client::send_bytes(const void* bytes, std::size_t length, int limit_ms) {
    const time_limit limit(limit_ms);
    const int sent = agt::send_tcp_data(sockfd_.get(), bytes, static_cast<int>(length));
    return sent == static_cast<int>(length) || failed_transfer("sending", sent);
}

bool command_client::send(const TCP_CMD_MSG& frame, int limit_ms) {
    return send_bytes(&frame, sizeof frame, limit_ms);
}

bool command_client::receive_bytes(void* out, std::size_t length, int limit_ms) {
    const time_limit limit(limit_ms);
    const int got = agt::recv_tcp_data(sockfd_.get(), out, static_cast<int>(length));
    heard_ = heard_ || got > 0;
    return got == static_cast<int>(length) || failed_transfer("waiting for the answer", got);
}

bool command_client::receive_parts(char* buffer, std::size_t length, const part_taker& take,
                                   int limit_ms) {
    const time_limit limit(limit_ms);
    for (std::size_t left = length; left > 0;) {
        const ssize_t got = agt::recv_tcp_some(sockfd_.get(), buffer, left);
        if (got < 1)
            return failed_transfer("waiting for the answer", static_cast<int>(got));
        heard_ = true;
        left -= static_cast<std::size_t>(got);
        if (!take({buffer, static_cast<std::size_t>(got)}))
            return false;
    }
    return true;
}

bool command_client::receive(TCP_CMD_MSG* out, int limit_ms) {
    if (!receive_bytes(out, sizeof *out, limit_ms))
        return false;
    return agt::magic_bit_check(sockfd_.get(), out) == 1 ||
           fail("the answer does not start with the magic bytes");
}

bool command_client::request(const TCP_CMD_MSG& question, TCP_CMD_MSG* answer, int limit_ms) {
    if (!send(question, limit_ms) || !receive(answer, limit_ms))
        return false;
    const char wanted = response_type(question.hdr.msg_type[0]);
    return answer->hdr.msg_type[0] == wanted ||
           fail(std::string("the answer is ") + message_name(answer->hdr.msg_type[0]) + ", not " +
                message_name(wanted));
}

bool command_client::wait_closed(int limit_ms) {
    const time_limit limit(limit_ms);
    char byte = 0;
    const int got = agt::recv_tcp_data(sockfd_.get(), &byte, 1);
    if (got == 0 || (got < 0 && errno == ECONNRESET))
        return true;
    if (const std::string of_tls = agt::tls_failure(sockfd_.get()); !of_tls.empty())
        return fail("TLS: " + of_tls);
    return fail(got > 0 ? "the agent sent something" : "the agent kept the connection open");
}

} // namespace kessctl
