// A library to preload: wraps what the daemon calls of the C library and fails as the table in the
// file KESSARD_FAULTS says. What the daemon starts is left alone.
#include "faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

using namespace faults;

void* wrapped[std::size(CALLS)];
table* now = nullptr;

[[gnu::constructor]] void map_table() {
    for (std::size_t i = 0; i < std::size(CALLS); ++i)
        wrapped[i] = dlsym(RTLD_NEXT, CALLS[i].data());
    const char* path = std::getenv("KESSARD_FAULTS");
    const char* of = std::getenv("KESSARD_FAULTS_OF"); // which program; the daemon without it
    if (path == nullptr ||
        std::strcmp(program_invocation_short_name, of == nullptr ? "kessard" : of) != 0)
        return;
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    void* memory = mmap(nullptr, sizeof(table), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    now = memory == MAP_FAILED ? nullptr : static_cast<table*>(memory);
}

int error_of(std::size_t call) {
    return now == nullptr ? 0 : now->of[call].error.load();
}

// Counts a call; whether it fails, with errno set.
bool fails(std::size_t call) {
    if (error_of(call) <= 0)
        return false;
    fault& one = now->of[call];
    const unsigned nth = ++one.calls;
    if (nth < one.first || (one.every == 0 ? nth != one.first : (nth - one.first) % one.every != 0))
        return false;
    ++one.hits;
    errno = error_of(call);
    return true;
}

// Event descriptors never move a part of what they have, and only disks are full.
bool concerns(std::size_t call, int fd) {
    struct stat info;
    if (error_of(call) == 0 || fstat(fd, &info) != 0)
        return false;
    return S_ISREG(info.st_mode) ||
           (error_of(call) != ENOSPC && (S_ISSOCK(info.st_mode) || S_ISFIFO(info.st_mode)));
}

std::size_t cut(std::size_t call, int fd, std::size_t length) {
    if (error_of(call) != SHORT_COUNT || length < 2 || !concerns(call, fd))
        return length;
    ++now->of[call].hits;
    return std::min<std::size_t>(length, 1 + ++now->of[call].calls % now->of[call].every);
}

time_t shown(time_t when) {
    return when + (now == nullptr ? 0 : now->clock_sec.load());
}

int cut_sleep(const pollfd* fds, int limit_ms) {
    const bool sleeps = now != nullptr && now->longest_sleep_ms > 0 && fds[0].fd < 0;
    return sleeps ? std::min<int>(limit_ms, now->longest_sleep_ms) : limit_ms;
}

} // namespace

// A wrapped call: type, parameters, what it returns when it fails, arguments; and when it can fail.
#define NUMBER(name) std::integral_constant<std::size_t, number_of(#name)>::value
#define REAL(type, name, parameters) reinterpret_cast<type(*) parameters>(wrapped[NUMBER(name)])
#define WRAP_IF(condition, type, name, parameters, failed, ...)                                    \
    type name parameters {                                                                         \
        return condition && fails(NUMBER(name)) ? failed                                           \
                                                : REAL(type, name, parameters)(__VA_ARGS__);       \
    }
#define WRAP(...) WRAP_IF(true, __VA_ARGS__)

extern "C" {
// clang-format off
WRAP(int, socket, (int domain, int type, int protocol) noexcept, -1, domain, type, protocol)
WRAP(int, connect, (int fd, const sockaddr* peer, socklen_t size), -1, fd, peer, size)
WRAP(int, accept4, (int fd, sockaddr* peer, socklen_t* size, int flags), -1, fd, peer, size, flags)
WRAP(int, getpeername, (int fd, sockaddr* peer, socklen_t* size) noexcept, -1, fd, peer, size)
WRAP(int, pipe2, (int* fds, int flags) noexcept, -1, fds, flags)
WRAP(int, eventfd, (unsigned count, int flags) noexcept, -1, count, flags)
WRAP(int, shmget, (key_t key, std::size_t size, int flags) noexcept, -1, key, size, flags)
WRAP(void*, shmat, (int id, const void* at, int flags) noexcept, reinterpret_cast<void*>(-1),
     id, at, flags)
WRAP(int, semget, (key_t key, int count, int flags) noexcept, -1, key, count, flags)
WRAP_IF((op->sem_op < 0 || error_of(NUMBER(semtimedop)) == EINTR), // what is held is given back
        int, semtimedop, (int id, sembuf* op, std::size_t count, const timespec* limit) noexcept,
        -1, id, op, count, limit)
WRAP(pid_t, fork, () noexcept, -1)
WRAP(int, pthread_create, (pthread_t* thread, const pthread_attr_t* how, void* (*entry)(void*),
     void* arg) noexcept, errno, thread, how, entry, arg)
WRAP(int, pselect, (int count, fd_set* in, fd_set* out, fd_set* other, const timespec* limit,
     const sigset_t* mask), -1, count, in, out, other, limit, mask)
WRAP(ssize_t, recv, (int fd, void* to, std::size_t size, int flags), -1,
     fd, to, cut(NUMBER(recv), fd, size), flags)
WRAP_IF(concerns(NUMBER(read), fd), ssize_t, read, (int fd, void* to, std::size_t size), -1,
        fd, to, cut(NUMBER(read), fd, size))
WRAP_IF(concerns(NUMBER(write), fd), ssize_t, write, (int fd, const void* from, std::size_t size),
        -1, fd, from, cut(NUMBER(write), fd, size))
WRAP_IF(concerns(NUMBER(pread), fd), ssize_t, pread,
        (int fd, void* to, std::size_t size, off_t at), -1,
        fd, to, cut(NUMBER(pread), fd, size), at)
WRAP_IF(fd >= 0, void*, mmap,
        (void* wanted, std::size_t size, int access, int flags, int fd, off_t at) noexcept,
        MAP_FAILED, wanted, size, access, flags, fd, at)
// A name server that is dead.
WRAP(int, gethostbyname_r, (const char* name, hostent* entry, char* buffer, std::size_t size,
     hostent** found, int* error), (sleep(30), *found = nullptr, 0),
     name, entry, buffer, size, found, error)
// clang-format on

// The child would return from here into what the parent still needs.
pid_t vfork() noexcept {
    return fails(NUMBER(vfork)) ? -1 : REAL(pid_t, fork, ())();
}

int open(const char* path, int flags, ...) {
    va_list mode;
    va_start(mode, flags);
    const auto real = REAL(int, open, (const char*, int, ...));
    const int ret = fails(NUMBER(open)) ? -1 : real(path, flags, va_arg(mode, mode_t));
    va_end(mode);
    return ret;
}

// Under its name its table is not to be read.
int poll_or_sleep(pollfd* fds, nfds_t count, int limit_ms) asm("poll");
int poll_or_sleep(pollfd* fds, nfds_t count, int limit_ms) {
    if (fails(NUMBER(poll)))
        return -1;
    const bool is_long = limit_ms > 60000; // and is interrupted: the clock may have moved
    const int ready = REAL(int, poll, (pollfd*, nfds_t, int))(
        fds, count, is_long ? 100 : cut_sleep(fds, limit_ms));
    errno = is_long && ready == 0 ? EINTR : errno;
    return is_long && ready == 0 ? -1 : ready;
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    iovec first = message->msg_iov[0];
    msghdr shorter = *message;
    first.iov_len = cut(NUMBER(sendmsg), fd, first.iov_len);
    if (first.iov_len < message->msg_iov[0].iov_len)
        shorter.msg_iov = &first, shorter.msg_iovlen = 1;
    if (fails(NUMBER(sendmsg)))
        return -1;
    return REAL(ssize_t, sendmsg, (int, const msghdr*, int))(fd, &shorter, flags);
}

ssize_t send(int fd, const void* from, std::size_t size, int flags) {
    if (fails(NUMBER(send)))
        return -1;
    return REAL(ssize_t, send, (int, const void*, std::size_t, int))(fd, from, size, flags);
}

ssize_t sendto(int fd, const void* from, std::size_t size, int flags, const sockaddr* to,
               socklen_t length) {
    sockaddr_un elsewhere{AF_UNIX, ""};
    if (now != nullptr && to != nullptr && to->sa_family == AF_UNIX && now->system_log[0] != '\0') {
        std::strcpy(elsewhere.sun_path, now->system_log);
        to = reinterpret_cast<const sockaddr*>(&elsewhere);
    }
    return REAL(ssize_t, sendto, (int, const void*, std::size_t, int, const sockaddr*, socklen_t))(
        fd, from, size, flags, to, length);
}

// Not through dlsym, which may want memory itself.
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* malloc(std::size_t size) noexcept {
    const bool failing = now != nullptr && size >= now->smallest_bytes && fails(NUMBER(malloc));
    return failing ? nullptr : __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) noexcept {
    return fails(NUMBER(calloc)) ? nullptr : __libc_calloc(count, size);
}

time_t time(time_t* out) noexcept {
    const time_t now_sec = shown(REAL(time_t, time, (time_t*))(nullptr));
    return out == nullptr ? now_sec : *out = now_sec;
}
int gettimeofday(timeval* out, void* zone) noexcept {
    const int ret = REAL(int, gettimeofday, (timeval*, void*))(out, zone);
    out->tv_sec = shown(out->tv_sec);
    return ret;
}
int clock_gettime(clockid_t clock, timespec* out) noexcept {
    const int ret = REAL(int, clock_gettime, (clockid_t, timespec*))(clock, out);
    out->tv_sec += now != nullptr && clock == CLOCK_MONOTONIC ? now->monotonic_sec.load() : 0;
    out->tv_sec = clock == CLOCK_REALTIME ? shown(out->tv_sec) : out->tv_sec;
    return ret;
}

} // extern "C"
