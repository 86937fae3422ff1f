// Who listens on a TCP port of the host.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kessctl {

struct listening_socket {
    unsigned address; // of IPv4, as inet_aton has it
    uid_t uid;        // of whoever made it
    std::uintmax_t inode;
};

// What a program that listens there would be told: 0, or an errno. A port that is bound without
// listening disturbs nobody.
int try_port(const char* address, int port);

// The IPv4 sockets that listen on the port, at the address or at all addresses; at any address when
// `address` is not a dotted one.
std::vector<listening_socket> sockets_at(const std::string& address, int port);

// The processes that hold one of the sockets, as far as their descriptors can be seen; the calling
// one is not among them.
std::vector<pid_t> holders_of(const std::vector<listening_socket>& sockets);

// The processes that listen on the port at any address, as far as their descriptors can be seen;
// the calling one is not among them.
std::vector<pid_t> listeners_of(int port);

} // namespace kessctl
