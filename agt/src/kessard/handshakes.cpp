// TLS handshakes of the command port.
#include "handshakes.h"

#include <poll.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>

#include "tcp_base.h"
#include "tls.h"
#include "tls_policy.h"
#include "wait.h"

namespace kessard {
namespace {

constexpr int MAX_HANDSHAKES = 5;

struct handshake {
    int sockfd = -1;
    sockaddr_in peer{};
    agt::tls_session* session = nullptr;
    long long until_ms = 0;
};

handshake handshakes[MAX_HANDSHAKES]; // in the order of their arrival, the free ones last
int under_way = 0;

// Takes one off the list.
handshake remove(handshake* one) {
    const handshake taken = *one;
    std::move(one + 1, handshakes + under_way, one);
    --under_way;
    return taken;
}

void refuse(const handshake& one, const std::string& why) {
    log_tls_refusal(one.peer, why);
    if (one.session != nullptr)
        agt::tls_module()->end(one.session, false);
    agt::close_tcp_session(one.sockfd);
}

bool is_ready(const handshake& one, const fd_set& reading, const fd_set* writing) {
    return FD_ISSET(one.sockfd, &reading) || (writing != nullptr && FD_ISSET(one.sockfd, writing));
}

// Whether the handshake is still under way; one that is not has left the list.
bool step(handshake* one, int (*take)(int sockfd, const sockaddr_in& peer)) {
    const agt::tls_step result = agt::tls_module()->shake_hands(one->session);
    if (result == agt::tls_step::waits)
        return true;
    const handshake ended = remove(one);
    if (result == agt::tls_step::failed)
        refuse(ended, agt::tls_module()->failure(ended.session));
    else if (agt::set_tls_session(ended.sockfd, ended.session))
        take(ended.sockfd, ended.peer);
    else
        agt::close_tcp_session(ended.sockfd);
    return false;
}

} // namespace

void start_handshake(int sockfd, const sockaddr_in& peer) {
    if (under_way == MAX_HANDSHAKES)
        refuse(remove(handshakes), "gave way to a newcomer before its handshake was done");
    const handshake fresh = {sockfd, peer, begin_cmd_session(sockfd),
                             agt::monotonic_ms() + agt::TLS_HANDSHAKE_MS};
    if (fresh.session == nullptr)
        refuse(fresh, "no memory");
    else
        handshakes[under_way++] = fresh;
}

fd_set* watch_handshakes(fd_set* reading, fd_set* writing, int* highest) {
    if (under_way == 0)
        return nullptr;
    FD_ZERO(writing);
    for (int i = 0; i < under_way; ++i) {
        const handshake& one = handshakes[i];
        FD_SET(one.sockfd, agt::tls_module()->awaited(one.session) == POLLOUT ? writing : reading);
        *highest = std::max(*highest, one.sockfd);
    }
    return writing;
}

void step_handshakes(const fd_set& reading, const fd_set* writing,
                     int (*take)(int sockfd, const sockaddr_in& peer)) {
    const long long now_ms = under_way == 0 ? 0 : agt::monotonic_ms();
    for (handshake* one = handshakes; one < handshakes + under_way;) {
        if (now_ms >= one->until_ms)
            refuse(remove(one), "no end of the handshake within 10 s");
        else if (!is_ready(*one, reading, writing) || step(one, take))
            ++one;
    }
}

int handshakes_left_ms(int most) {
    const long long now_ms = under_way == 0 ? 0 : agt::monotonic_ms();
    for (int i = 0; i < under_way; ++i)
        most = static_cast<int>(std::clamp<long long>(handshakes[i].until_ms - now_ms, 0, most));
    return most;
}

void close_handshakes() {
    while (under_way > 0) {
        const handshake one = remove(handshakes);
        agt::tls_module()->end(one.session, false);
        agt::leave_tcp_session(one.sockfd);
    }
}

} // namespace kessard
