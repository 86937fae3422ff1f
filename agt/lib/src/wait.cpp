// Cancellable waits.
#include "wait.h"

#include <poll.h>

#include <cerrno>

namespace agt {
namespace {

thread_local int cancel_fd = -1;
thread_local bool cancel_seen = false;

int remaining_ms(long long deadline_ms) {
    const long long left = deadline_ms - monotonic_ms();
    return left > 0 ? static_cast<int>(left) : 0;
}

} // namespace

long long monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

void set_cancel_fd(int fd) {
    cancel_fd = fd;
}

int get_cancel_fd() {
    return cancel_fd;
}

bool cancelled() {
    pollfd watched = {cancel_fd, POLLIN, 0};
    return cancel_fd >= 0 && poll(&watched, 1, 0) > 0;
}

bool saw_cancel() {
    return cancel_seen;
}

wait_result wait_fd(int fd, short events, int limit_ms) {
    const long long deadline_ms = limit_ms < 0 ? 0 : monotonic_ms() + limit_ms;
    for (;;) {
        pollfd watched[2] = {{fd, events, 0}, {cancel_fd, POLLIN, 0}};
        const int ret = poll(watched, 2, limit_ms < 0 ? -1 : remaining_ms(deadline_ms));
        cancel_seen = ret > 0 && watched[1].revents != 0;
        if (ret == 0)
            return wait_result::timed_out;
        if (ret < 0 && errno == EINTR)
            continue;
        if (ret < 0)
            return wait_result::failed;
        if (watched[0].revents != 0)
            return wait_result::ready;
        errno = ECANCELED;
        return wait_result::cancelled;
    }
}

bool sleep_ms(int ms) {
    return wait_fd(-1, 0, ms) == wait_result::timed_out;
}

} // namespace agt
