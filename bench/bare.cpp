// The bare side of the benchmark: a program that does nothing but the work itself, with blocking
// calls and no checks.
//
//     kessard_bare echo          answers every 1407 bytes with 1407 bytes
//     kessard_bare crowd         the same for five connections at once, once all five are there
//     kessard_bare ping          for each 4-byte number that comes: sends 1407 bytes and waits for
//     1407, so many times kessard_bare shell         for each byte that comes: runs "/bin/sh -c
//     'echo a'" and answers with nanoseconds kessard_bare store FILE    writes what comes to the
//     file, one connection after the other kessard_bare fetch FILE    sends the file, one
//     connection after the other
//
// These write their port to standard output and serve one connection at a time. Two need none and
// print a line when they are ready:
//
//     kessard_bare leave KEY SIZE...    attaches the shared segments of these keys and sizes, which
//     it makes if need be kessard_bare touch KEY SIZE...    the same and clears every byte of them
//     kessard_bare waits                waits as often as the daemon does without work
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "bare_listen.h"
#include "bare_local.h"

namespace {

constexpr std::size_t FRAME_BYTES = 1407;
constexpr std::size_t PIECE_BYTES = std::size_t{1024} * 1024;
constexpr int CROWD = 5;

const char* file_name = "";
int listener = -1;
char frame[FRAME_BYTES];
char piece[PIECE_BYTES];

bool receive(int sockfd, void* out, std::size_t length) {
    return recv(sockfd, out, length, MSG_WAITALL) == static_cast<ssize_t>(length);
}

void echo(int sockfd) {
    while (receive(sockfd, frame, sizeof frame) && write(sockfd, frame, sizeof frame) > 0)
        continue;
}

int accept_one() {
    const int sockfd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    const int nodelay = 1;
    setsockopt(sockfd, IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof nodelay);
    return sockfd;
}

bool answer_ready(const pollfd (&watched)[CROWD]) {
    for (const pollfd& one : watched)
        if (one.revents != 0 &&
            !(receive(one.fd, frame, sizeof frame) && write(one.fd, frame, sizeof frame) > 0))
            return false;
    return true;
}

void crowd(int first) {
    pollfd watched[CROWD] = {{first, POLLIN, 0}};
    for (int i = 1; i < CROWD; ++i)
        watched[i] = {accept_one(), POLLIN, 0};
    while (poll(watched, CROWD, -1) > 0 && answer_ready(watched))
        continue;
    for (int i = 1; i < CROWD; ++i)
        close(watched[i].fd);
}

void ping(int sockfd) {
    for (std::uint32_t count = 0; receive(sockfd, &count, sizeof count);)
        while (count-- > 0 && write(sockfd, frame, sizeof frame) > 0 &&
               receive(sockfd, frame, sizeof frame))
            continue;
}

std::uint64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000U +
           static_cast<std::uint64_t>(now.tv_nsec);
}

void run_shell() {
    int ends[2];
    if (pipe(ends) != 0)
        return;
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        execl("/bin/sh", "sh", "-c", "echo a", static_cast<char*>(nullptr));
        _exit(1);
    }
    close(ends[1]);
    while (read(ends[0], piece, sizeof piece) > 0)
        continue;
    close(ends[0]);
    waitpid(pid, nullptr, 0);
}

void shell(int sockfd) {
    for (char byte = 0; receive(sockfd, &byte, sizeof byte);) {
        const std::uint64_t start_ns = now_ns();
        run_shell();
        const std::uint64_t took_ns = now_ns() - start_ns;
        if (write(sockfd, &took_ns, sizeof took_ns) < 1)
            return;
    }
}

void copy(int from, int to) {
    for (ssize_t got = 0; (got = read(from, piece, sizeof piece)) > 0;)
        for (ssize_t at = 0, done = 0; at < got; at += done)
            if ((done = write(to, piece + at, static_cast<std::size_t>(got - at))) < 1)
                return;
}

void store(int sockfd) {
    const int fd = open(file_name, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    copy(sockfd, fd);
    close(fd);
}

void fetch(int sockfd) {
    const int fd = open(file_name, O_RDONLY);
    copy(fd, sockfd);
    close(fd);
}

struct work {
    const char* name;
    void (*serve)(int sockfd);
};
constexpr work WORKS[] = {{"echo", echo},   {"crowd", crowd}, {"ping", ping},
                          {"shell", shell}, {"store", store}, {"fetch", fetch}};

// Comes back only when the work is none of these.
void work_without_connection(char** argv) {
    if (std::strcmp(argv[1], "waits") == 0)
        wait_without_work();
    static constexpr const char* PAGES[] = {"leave", "touch"};
    for (const char* pages : PAGES)
        if (std::strcmp(argv[1], pages) == 0)
            attach_objects(*pages == 't', argv + 2);
}

void serve(const work& one) {
    listener = bench::listen_somewhere();
    if (listener < 0)
        return;
    for (int sockfd = -1; (sockfd = accept_one()) >= 0; close(sockfd))
        one.serve(sockfd);
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2)
        return 1;
    work_without_connection(argv);
    file_name = argc > 2 ? argv[2] : "";
    for (const work& one : WORKS)
        if (std::strcmp(argv[1], one.name) == 0)
            serve(one);
    return 1;
}
