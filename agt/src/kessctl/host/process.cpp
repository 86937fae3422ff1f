// Processes that have to do with a configuration.
#include "host/agent_processes.h"

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "host/daemon_process.h"

namespace kessctl {
namespace {

namespace fs = std::filesystem;

constexpr char PROGRAM[] = "kessard";
constexpr char CFG_VARIABLE[] = "TRAN_AGT_CFG_FILE=";
constexpr unsigned LISTENING = 0x0A; // state of a socket in /proc/net/tcp

std::string proc_path(pid_t pid, const char* name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

std::string read_whole(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<pid_t> all_processes() {
    std::vector<pid_t> pids;
    std::error_code error;
    for (fs::directory_iterator at("/proc", error), end; !error && at != end; at.increment(error))
        if (const int pid = std::atoi(at->path().filename().c_str()); pid > 0)
            pids.push_back(pid);
    return pids;
}

// The environment's configuration file of a process, as a path from here; empty without one.
fs::path configuration_of(pid_t pid) {
    const std::string environment = '\0' + read_whole(proc_path(pid, "environ"));
    const std::size_t at = environment.find('\0' + std::string(CFG_VARIABLE));
    if (at == environment.npos)
        return {};
    const char* value = environment.c_str() + at + sizeof CFG_VARIABLE;
    return fs::path(proc_path(pid, "cwd")) /
           value; // an absolute one replaces what stands before it
}

pid_t parent_of(pid_t pid) {
    const std::string stat = read_whole(proc_path(pid, "stat"));
    const std::size_t name_end = stat.rfind(')'); // the name may hold anything
    int parent = 0;
    if (name_end != stat.npos)
        std::sscanf(stat.c_str() + name_end, ") %*c %d", &parent);
    return parent;
}

std::set<std::uintmax_t> listening_inodes(int port) {
    std::set<std::uintmax_t> inodes;
    for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        std::ifstream file(table);
        for (std::string line; std::getline(file, line);) {
            unsigned local = 0;
            unsigned state = 0;
            std::uintmax_t inode = 0;
            if (std::sscanf(line.c_str(),
                            " %*d: %*[0-9A-F]:%x %*s %x %*s %*s %*s %*s %*s %" SCNuMAX, &local,
                            &state, &inode) == 3 &&
                state == LISTENING && static_cast<int>(local) == port)
                inodes.insert(inode);
        }
    }
    return inodes;
}

bool has_socket(pid_t pid, const std::set<std::uintmax_t>& inodes) {
    std::error_code error;
    for (fs::directory_iterator at(proc_path(pid, "fd"), error), end; !error && at != end;
         at.increment(error)) {
        std::uintmax_t inode = 0;
        std::error_code unreadable;
        const fs::path target = fs::read_symlink(at->path(), unreadable);
        if (std::sscanf(target.c_str(), "socket:[%" SCNuMAX, &inode) == 1 && inodes.contains(inode))
            return true;
    }
    return false;
}

// A segment is mapped as the file "/SYSV<key>" with its identifier as the inode.
bool maps_segment(pid_t pid, int shmid) {
    std::ifstream file(proc_path(pid, "maps"));
    for (std::string line; std::getline(file, line);) {
        int inode = 0;
        if (line.find(" /SYSV") != line.npos &&
            std::sscanf(line.c_str(), "%*s %*s %*s %*s %d", &inode) == 1 && inode == shmid)
            return true;
    }
    return false;
}

template <class Test> std::vector<pid_t> processes_that(Test test) {
    std::vector<pid_t> pids = all_processes();
    std::erase_if(pids, [&](pid_t pid) { return pid == getpid() || !test(pid); });
    return pids;
}

} // namespace

std::vector<pid_t> daemons_of(const std::string& cfg_file) {
    std::vector<pid_t> pids = processes_that([&](pid_t pid) {
        std::error_code error;
        return process_name(pid) == PROGRAM &&
               fs::equivalent(configuration_of(pid), cfg_file, error);
    });
    const std::set<pid_t> all(pids.begin(), pids.end());
    const pid_t attached = find_daemon(cfg_file).pid;
    if (attached > 0 && !all.contains(attached))
        pids.push_back(attached);
    std::erase_if(pids, [&](pid_t pid) { return all.contains(parent_of(pid)); });
    return pids;
}

std::vector<pid_t> listeners_of(int port) {
    const std::set<std::uintmax_t> inodes = listening_inodes(port);
    return inodes.empty() ? std::vector<pid_t>()
                          : processes_that([&](pid_t pid) { return has_socket(pid, inodes); });
}

std::vector<pid_t> attached_to(int shmid) {
    return processes_that([shmid](pid_t pid) { return maps_segment(pid, shmid); });
}

bool may_have_attached(pid_t pid, int shmid) {
    return maps_segment(pid, shmid) || !std::ifstream(proc_path(pid, "maps"));
}

std::string process_text(pid_t pid) {
    return std::to_string(pid) + " (" +
           (process_alive(pid) ? process_name(pid) : "no longer there") + ")";
}

std::string process_texts(const std::vector<pid_t>& pids) {
    std::string text;
    for (const pid_t pid : pids)
        text += (text.empty() ? "" : ", ") + process_text(pid);
    return text;
}

} // namespace kessctl
