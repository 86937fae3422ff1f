// Figures, and measuring two sides in turn.
#include "measure.h"

#include <sys/socket.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <limits>

#include "kessard/cmd_msg.h"

namespace bench {
namespace {

volatile std::sig_atomic_t ended = 0;

} // namespace

double now_us() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

spread::spread(samples values) : spread() {
    if (values.empty() ||
        std::any_of(values.begin(), values.end(), [](double one) { return std::isnan(one); }))
        return;
    std::sort(values.begin(), values.end());
    low = values[values.size() / 4];
    middle = values[values.size() / 2];
    high = values[values.size() * 3 / 4];
}

spread figure::value() const {
    if (by == judged::own)
        return kessard;
    spread of;
    of.low = kessard.low / bare.high;
    of.middle = ratio();
    of.high = kessard.high / bare.low;
    return of;
}

bool interrupted() {
    return ended != 0;
}

void catch_signals() {
    for (const int signo : {SIGINT, SIGTERM})
        std::signal(signo, [](int) { ended = 1; });
    std::signal(SIGPIPE, SIG_IGN);
}

figure compare(const figure& of, int rounds, const std::function<double()>& kessard,
               const std::function<double()>& bare) {
    samples sides[2];
    kessard();
    bare();
    for (int i = 0; i < rounds; ++i) {
        sides[0].push_back(interrupted() ? NAN : kessard());
        sides[1].push_back(interrupted() ? NAN : bare());
    }
    figure measured = of;
    measured.kessard = spread(sides[0]);
    measured.bare = spread(sides[1]);
    return measured;
}

bool send_all(int sockfd, const void* bytes, std::size_t length) {
    for (const char* at = static_cast<const char*>(bytes); length > 0;) {
        const ssize_t sent = send(sockfd, at, length, MSG_NOSIGNAL);
        if (sent < 1)
            return false;
        at += sent;
        length -= static_cast<std::size_t>(sent);
    }
    return true;
}

bool receive_all(int sockfd, void* out, std::size_t length) {
    return recv(sockfd, out, length, MSG_WAITALL) == static_cast<ssize_t>(length);
}

double exchange_us(const std::vector<int>& sockfds, const void* frame, int count) {
    char answer[TCP_CMD_MSG_SIZE];
    const auto send = [&](int sockfd) { return send_all(sockfd, frame, TCP_CMD_MSG_SIZE); };
    const auto receive = [&](int sockfd) { return receive_all(sockfd, answer, sizeof answer); };
    const double start_us = now_us();
    for (int i = 0; i < count; ++i)
        if (!std::all_of(sockfds.begin(), sockfds.end(), send) ||
            !std::all_of(sockfds.begin(), sockfds.end(), receive))
            return NAN;
    return (now_us() - start_us) / count / static_cast<double>(sockfds.size());
}

} // namespace bench
