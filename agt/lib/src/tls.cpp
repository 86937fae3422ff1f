// Sessions of TLS on descriptors.
#include "tls.h"

#include <dlfcn.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace agt {
namespace {

constexpr int TABLE_SIZE = 1024; // descriptors; what the system hands out first

const tls_calls* calls = nullptr;
std::atomic<tls_session*> sessions[TABLE_SIZE];

bool has_place(int sockfd) {
    return sockfd >= 0 && sockfd < TABLE_SIZE;
}

int left_ms(long long until_ms, int limit_ms) {
    return limit_ms < 0
               ? -1
               : static_cast<int>(std::clamp<long long>(until_ms - monotonic_ms(), 0, limit_ms));
}

// Steps until the handshake is done; empty then, else why it is not.
std::string shake_hands(int sockfd, tls_session* session, int limit_ms) {
    const long long until_ms = monotonic_ms() + limit_ms;
    for (;;) {
        const tls_step step = calls->shake_hands(session);
        if (step != tls_step::waits)
            return step == tls_step::done ? "" : calls->failure(session);
        const wait_result waited =
            wait_fd(sockfd, calls->awaited(session), left_ms(until_ms, limit_ms));
        if (waited == wait_result::timed_out)
            return "no end of the handshake within " + std::to_string(limit_ms / 1000) + " s";
        if (waited != wait_result::ready)
            return std::strerror(errno);
    }
}

} // namespace

const tls_calls* load_tls_module(std::string* error) {
    if (calls != nullptr)
        return calls;
    void* module = dlopen(TLS_MODULE, RTLD_NOW | RTLD_LOCAL);
    if (module != nullptr)
        calls = static_cast<const tls_calls*>(dlsym(module, TLS_CALLS_SYMBOL));
    if (calls == nullptr) {
        const char* reason = dlerror();
        *error = reason != nullptr ? reason : TLS_MODULE;
    }
    return calls;
}

const tls_calls* tls_module() {
    return calls;
}

bool set_tls_session(int sockfd, tls_session* session) {
    if (!has_place(sockfd)) {
        calls->end(session, false);
        return false;
    }
    sessions[sockfd] = session;
    tls_in_use = true;
    return true;
}

bool secure_socket(int sockfd, tls_session* session, int limit_ms, std::string* why) {
    *why = session == nullptr ? "no memory" : shake_hands(sockfd, session, limit_ms);
    if (session != nullptr && !why->empty())
        calls->end(session, false);
    else if (session != nullptr && !set_tls_session(sockfd, session))
        *why = "too many descriptors";
    return why->empty();
}

void end_tls_session(int sockfd, bool politely) {
    tls_session* session =
        tls_session_of(sockfd) == nullptr ? nullptr : sessions[sockfd].exchange(nullptr);
    if (session != nullptr)
        calls->end(session, politely);
}

tls_session* find_tls_session(int sockfd) {
    return has_place(sockfd) ? sessions[sockfd].load() : nullptr;
}

ssize_t recv_now(int sockfd, void* buffer, std::size_t length, int flags) {
    tls_session* session = tls_session_of(sockfd);
    return session == nullptr ? recv(sockfd, buffer, length, MSG_DONTWAIT | flags)
                              : calls->receive(session, buffer, length, flags);
}

ssize_t send_now(int sockfd, const msghdr& message) {
    tls_session* session = tls_session_of(sockfd);
    return session == nullptr ? sendmsg(sockfd, &message, MSG_DONTWAIT | MSG_NOSIGNAL)
                              : calls->send(session, message.msg_iov, message.msg_iovlen);
}

wait_result wait_data(int sockfd, int limit_ms) {
    tls_session* session = tls_session_of(sockfd);
    if (session == nullptr)
        return wait_fd(sockfd, POLLIN, limit_ms);
    const long long until_ms = monotonic_ms() + limit_ms;
    for (char byte = 0; calls->receive(session, &byte, 1, MSG_PEEK) < 0 && errno == EAGAIN;) {
        const wait_result waited = wait_again(sockfd, POLLIN, left_ms(until_ms, limit_ms));
        if (waited != wait_result::ready)
            return waited;
    }
    return wait_result::ready;
}

wait_result wait_again(int sockfd, short event, int limit_ms) {
    tls_session* session = tls_session_of(sockfd);
    if (session == nullptr)
        return wait_fd(sockfd, event, limit_ms);
    const wait_result waited =
        wait_fd(sockfd, calls->awaited(session), calls->is_pending(session) ? 0 : limit_ms);
    return waited == wait_result::timed_out && calls->is_pending(session) ? wait_result::ready
                                                                          : waited;
}

bool has_pending_data(int sockfd) {
    tls_session* session = tls_session_of(sockfd);
    return session != nullptr && calls->is_pending(session);
}

bool has_part_of_record(int sockfd) {
    tls_session* session = tls_session_of(sockfd);
    return session != nullptr && calls->has_part(session);
}

std::string tls_failure(int sockfd) {
    tls_session* session = tls_session_of(sockfd);
    return session == nullptr ? "" : calls->failure(session);
}

std::string tls_peer_name(int sockfd) {
    tls_session* session = tls_session_of(sockfd);
    return session == nullptr ? "" : calls->peer_name(session);
}

} // namespace agt
