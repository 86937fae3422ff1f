// The bare side of the benchmark: a program that does nothing but the work itself, with blocking calls and no checks.
//
//     kessard_bare echo          answers every 1407 bytes with 1407 bytes
//     kessard_bare ping          for each 4-byte number that comes: sends 1407 bytes and waits for 1407, so many times
//     kessard_bare shell         for each byte that comes: runs "/bin/sh -c 'echo a'" and answers with nanoseconds
//     kessard_bare store FILE    writes what comes to the file, one connection after the other
//     kessard_bare fetch FILE    sends the file, one connection after the other
//
// It writes its port to standard output and serves one connection at a time.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

constexpr std::size_t FRAME_BYTES = 1407;
constexpr std::size_t PIECE_BYTES = 1024 * 1024;

const char* file_name = "";
char frame[FRAME_BYTES];
char piece[PIECE_BYTES];

bool receive(int sockfd, void* out, std::size_t length) {
    return recv(sockfd, out, length, MSG_WAITALL) == static_cast<ssize_t>(length);
}

void echo(int sockfd) {
    while (receive(sockfd, frame, sizeof frame) && write(sockfd, frame, sizeof frame) > 0)
        continue;
}

void ping(int sockfd) {
    for (std::uint32_t count = 0; receive(sockfd, &count, sizeof count);)
        while (count-- > 0 && write(sockfd, frame, sizeof frame) > 0 && receive(sockfd, frame, sizeof frame))
            continue;
}

std::uint64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000U + static_cast<std::uint64_t>(now.tv_nsec);
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
constexpr work WORKS[] = {{"echo", echo}, {"ping", ping}, {"shell", shell}, {"store", store}, {"fetch", fetch}};

// A listening socket on a port that the system chooses, which it prints.
int listen_somewhere() {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof own;
    if (bind(listener, reinterpret_cast<sockaddr*>(&own), size) != 0 || listen(listener, 5) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&own), &size) != 0)
        return -1;
    std::printf("%d\n", ntohs(own.sin_port));
    std::fflush(stdout);
    return listener;
}

} // namespace

int main(int argc, char** argv) {
    file_name = argc > 2 ? argv[2] : "";
    for (const work& one : WORKS) {
        if (argc < 2 || std::strcmp(argv[1], one.name) != 0)
            continue;
        const int listener = listen_somewhere();
        for (int sockfd = -1; (sockfd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(sockfd)) {
            const int nodelay = 1;
            setsockopt(sockfd, IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof nodelay);
            one.serve(sockfd);
        }
    }
    return 1;
}
