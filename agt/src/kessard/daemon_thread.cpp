// Threads of the daemon.
#include "daemon_thread.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "log_printf.h"
#include "process_globals.h"
#include "shortage.h"
#include "state_file.h"
#include "wait.h"

namespace kessard {
namespace {

// Makes an event descriptor, or takes back the event of the one that is there. False when there is
// none.
bool reset_event(int& fd) {
    std::uint64_t events = 0;
    if (fd < 0)
        fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    else [[maybe_unused]]
        const ssize_t taken = read(fd, &events, sizeof events);
    return fd >= 0;
}

bool send_event(int fd) {
    const std::uint64_t one = 1;
    return write(fd, &one, sizeof one) == static_cast<ssize_t>(sizeof one);
}

// Not wait_fd, which the cancelled caller's own event would end.
bool has_event(int fd, int limit_ms) {
    const long long until_ms = agt::monotonic_ms() + limit_ms;
    pollfd watched = {fd, POLLIN, 0};
    int ret;
    do
        ret = poll(&watched, 1, static_cast<int>(std::max(until_ms - agt::monotonic_ms(), 0LL)));
    while (ret < 0 && errno == EINTR);
    return ret > 0;
}

} // namespace

void* daemon_thread::run(void* self) {
    auto* thread = static_cast<daemon_thread*>(self);
    char name[16]; // what the system keeps of a thread's name
    std::snprintf(name, sizeof name, "%s", thread->name_);
    pthread_setname_np(pthread_self(), name);
    agt::set_cancel_fd(thread->cancel_fd_);
    begin_thread_figures(thread->place_, thread->name_, thread->rhythm_ms_);
    void* ret = thread->entry_(nullptr);
    end_thread_figures();
    send_event(thread->done_fd_);
    return ret;
}

bool daemon_thread::start() {
    const agt::lock_guard guard(mutex_);
    if (started_ && !has_event(done_fd_, JOIN_LIMIT_MS)) {
        errno = EBUSY;
        return false;
    }
    if (started_)
        pthread_join(handle_, nullptr);
    started_ = false;
    if (reset_event(cancel_fd_) && reset_event(done_fd_)) {
        errno = pthread_create(&handle_, nullptr, run, this);
        started_ = errno == 0;
    }
    return started_;
}

bool daemon_thread::cancel() {
    const agt::lock_guard guard(mutex_);
    return !started_ || send_event(cancel_fd_);
}

bool daemon_thread::wait_end() {
    return !started_ || agt::wait_fd(done_fd_, POLLIN, -1) != agt::wait_result::cancelled;
}

bool daemon_thread::join(int limit_ms) {
    const agt::lock_guard guard(mutex_);
    if (!started_)
        return true;
    if (!has_event(done_fd_, limit_ms))
        return false;
    pthread_join(handle_, nullptr);
    started_ = false;
    return true;
}

bool keep_running() {
    return running != 0 && !agt::cancelled();
}

bool start_thread(daemon_thread& thread) {
    const bool started = thread.start();
    if (!started) {
        log_shortage(thread.name(), errno);
        agt::log_printf("%s", thread.start_error());
    }
    return started;
}

void cancel_thread(daemon_thread& thread) {
    if (thread.started() && !thread.cancel())
        agt::log_printf("<!> cannot cancel %s.", thread.name());
}

void join_thread(daemon_thread& thread) {
    if (thread.started())
        agt::log_printf(thread.join(JOIN_LIMIT_MS) ? "(I) completed join %s."
                                                   : "<!> cannot join %s.",
                        thread.name());
}

void stop_thread(daemon_thread& thread) {
    thread.cancel();
    thread.join(JOIN_LIMIT_MS);
}

} // namespace kessard
