// Who listens on a TCP port of the host.
#include "host/listener.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "host/process.h"
#include "unique_fd.h"

namespace kessctl {
namespace {

namespace fs = std::filesystem;

constexpr unsigned LISTENING = 0x0A; // state of a socket in /proc/net/tcp

// The sockets of a table that listen on the port; the address means nothing in that of IPv6.
std::vector<listening_socket> listening_on(const char* table, int port) {
    std::vector<listening_socket> found;
    std::ifstream file(table);
    for (std::string line; std::getline(file, line);) {
        char address[33] = "";
        unsigned local = 0;
        unsigned state = 0;
        uid_t uid = 0;
        std::uintmax_t inode = 0;
        if (std::sscanf(line.c_str(), " %*d: %32[0-9A-F]:%x %*s %x %*s %*s %*s %u %*s %" SCNuMAX,
                        address, &local, &state, &uid, &inode) == 5 &&
            state == LISTENING && static_cast<int>(local) == port)
            found.push_back(
                {static_cast<unsigned>(std::strtoul(address, nullptr, 16)), uid, inode});
    }
    return found;
}

bool has_socket(pid_t pid, const std::set<std::uintmax_t>& inodes) {
    std::error_code error;
    for (fs::directory_iterator at("/proc/" + std::to_string(pid) + "/fd", error), end;
         !error && at != end; at.increment(error)) {
        std::uintmax_t inode = 0;
        std::error_code unreadable;
        const fs::path target = fs::read_symlink(at->path(), unreadable);
        if (std::sscanf(target.c_str(), "socket:[%" SCNuMAX, &inode) == 1 && inodes.contains(inode))
            return true;
    }
    return false;
}

} // namespace

int try_port(const char* address, int port) {
    const agt::unique_fd probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int reuse = 1;
    setsockopt(probe.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = inet_addr(address);
    own.sin_port = htons(static_cast<unsigned short>(port));
    return bind(probe.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) == 0 ? 0 : errno;
}

std::vector<listening_socket> sockets_at(const std::string& address, int port) {
    in_addr wanted{};
    std::vector<listening_socket> sockets = listening_on("/proc/net/tcp", port);
    if (inet_aton(address.c_str(), &wanted) != 0)
        std::erase_if(sockets, [&](const listening_socket& one) {
            return one.address != INADDR_ANY && one.address != wanted.s_addr;
        });
    return sockets;
}

std::vector<pid_t> holders_of(const std::vector<listening_socket>& sockets) {
    std::set<std::uintmax_t> inodes;
    for (const listening_socket& one : sockets)
        inodes.insert(one.inode);
    if (inodes.empty())
        return {};
    std::vector<pid_t> pids = all_processes();
    std::erase_if(pids, [&](pid_t pid) { return pid == getpid() || !has_socket(pid, inodes); });
    return pids;
}

std::vector<pid_t> listeners_of(int port) {
    std::vector<listening_socket> sockets = listening_on("/proc/net/tcp", port);
    std::ranges::copy(listening_on("/proc/net/tcp6", port), std::back_inserter(sockets));
    return holders_of(sockets);
}

} // namespace kessctl
