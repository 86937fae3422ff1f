// The listening socket of a bare program.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>

namespace bench {

// Listens on a port that the system chooses and prints it; -1 when that fails.
inline int listen_somewhere() {
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

} // namespace bench
