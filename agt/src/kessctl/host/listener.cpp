// Who listens on a TCP port of the host.
#include "host/listener.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

#include "host/process.h"

namespace kessctl {
namespace {

namespace fs = std::filesystem;

constexpr unsigned LISTENING = 0x0A; // state of a socket in /proc/net/tcp

struct listening_socket {
    unsigned address; // of IPv4, as inet_aton has it
    std::uintmax_t inode;
};

// The sockets of a table that listen on the port; the address means nothing in that of IPv6.
std::vector<listening_socket> listening_on(const char* table, int port) {
    std::vector<listening_socket> found;
    std::ifstream file(table);
    for (std::string line; std::getline(file, line);) {
        char address[33] = "";
        unsigned local = 0;
        unsigned state = 0;
        std::uintmax_t inode = 0;
        if (std::sscanf(line.c_str(), " %*d: %32[0-9A-F]:%x %*s %x %*s %*s %*s %*s %*s %" SCNuMAX,
                        address, &local, &state, &inode) == 4 &&
            state == LISTENING && static_cast<int>(local) == port)
            found.push_back({static_cast<unsigned>(std::strtoul(address, nullptr, 16)), inode});
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

bool port_listens(const std::string& address, int port) {
    in_addr wanted{};
    const bool dotted = inet_aton(address.c_str(), &wanted) != 0;
    const std::vector<listening_socket> sockets = listening_on("/proc/net/tcp", port);
    return std::any_of(sockets.begin(), sockets.end(), [&](const listening_socket& one) {
        return !dotted || one.address == INADDR_ANY || one.address == wanted.s_addr;
    });
}

std::vector<pid_t> listeners_of(int port) {
    std::set<std::uintmax_t> inodes;
    for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"})
        for (const listening_socket& one : listening_on(table, port))
            inodes.insert(one.inode);
    if (inodes.empty())
        return {};
    std::vector<pid_t> pids = all_processes();
    std::erase_if(pids, [&](pid_t pid) { return pid == getpid() || !has_socket(pid, inodes); });
    return pids;
}

} // namespace kessctl
