// Finding the daemon of a configuration among the processes of the host.
#include "daemon_process.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

#include "agent_options.h"
#include "frame.h"
#include "shared_objects.h"

namespace kessctl {
namespace {

constexpr char DAEMON_NAME[] = "kessard";
constexpr unsigned TCP_LISTENS = 0x0A;

std::string proc_file(pid_t pid, const char* name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

struct process_stat {
    char state = 'X'; // as of a process that is gone
    pid_t parent = 0;
    long long start_ticks = 0; // since the system started
};

process_stat read_stat(pid_t pid) {
    process_stat stat;
    std::string text;
    std::getline(std::ifstream(proc_file(pid, "stat")), text, '\0');
    const std::size_t name_end = text.rfind(')'); // the name may hold anything
    if (name_end != text.npos)
        std::sscanf(
            text.c_str() + name_end + 1,
            " %c %d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d %lld",
            &stat.state, &stat.parent, &stat.start_ticks);
    return stat;
}

// When the system started, by its own clock.
time_t boot_time() {
    std::ifstream file("/proc/stat");
    for (std::string line; std::getline(file, line);)
        if (line.starts_with("btime "))
            return std::atoll(line.c_str() + std::size("btime ") - 1);
    return 0;
}

struct candidate {
    pid_t pid = 0;
    process_stat stat;
    bool readable = false; // its memory map
    std::vector<int> attached_ids;
};

// The identifiers of the segments of `keys` that a process has attached. False when its map cannot
// be read.
bool read_attached(pid_t pid, const std::set<unsigned>& keys, std::vector<int>* ids) {
    std::ifstream maps(proc_file(pid, "maps"));
    std::string line;
    if (!std::getline(maps, line))
        return false;
    do {
        unsigned long inode = 0;
        unsigned key = 0;
        const bool segment =
            std::sscanf(line.c_str(), "%*s %*s %*s %*s %lu /SYSV%8x", &inode, &key) == 2;
        if (segment && keys.contains(key))
            ids->push_back(
                static_cast<int>(inode)); // a segment's identifier is the inode number of its file
    } while (std::getline(maps, line));
    return true;
}

std::set<unsigned> segment_keys(const std::string& cfg_file) {
    std::set<unsigned> keys;
    for (const agt::shared_object* object : agt::SHARED_OBJECTS)
        if (object->kind == agt::object_kind::segment)
            keys.insert(static_cast<unsigned>(
                std::strtol(cfg_value(cfg_file, object->key()).c_str(), nullptr, 10)));
    keys.erase(0);
    return keys;
}

std::vector<candidate> list_candidates(const std::set<unsigned>& keys) {
    std::vector<candidate> found;
    std::error_code error;
    for (std::filesystem::directory_iterator at("/proc", error), end; !error && at != end;
         at.increment(error)) {
        candidate one;
        one.pid = std::atoi(at->path().filename().c_str());
        if (one.pid <= 0 || process_name(one.pid) != DAEMON_NAME || !process_alive(one.pid))
            continue;
        one.stat = read_stat(one.pid);
        one.readable = read_attached(one.pid, keys, &one.attached_ids);
        if (!one.readable || !one.attached_ids.empty())
            found.push_back(one);
    }
    return found;
}

// Whether an IPv4 socket listens on the port, at the address or at all addresses.
bool port_listens(const std::string& address, int port) {
    in_addr wanted{};
    const bool dotted = inet_aton(address.c_str(), &wanted) != 0;
    std::ifstream table("/proc/net/tcp");
    for (std::string line; std::getline(table, line);) {
        unsigned local = 0;
        unsigned local_port = 0;
        unsigned state = 0;
        if (std::sscanf(line.c_str(), " %*d: %8x:%4x %*8x:%*4x %2x", &local, &local_port, &state) ==
                3 &&
            state == TCP_LISTENS && static_cast<int>(local_port) == port &&
            (!dotted || local == 0 || local == wanted.s_addr))
            return true;
    }
    return false;
}

// Takes out the candidates whose parent is one too.
void drop_children(std::vector<candidate>& candidates) {
    std::set<pid_t> pids;
    for (const candidate& one : candidates)
        pids.insert(one.pid);
    std::erase_if(candidates, [&](const candidate& one) { return pids.contains(one.stat.parent); });
}

} // namespace

bool process_alive(pid_t pid) {
    if (pid <= 0 || (kill(pid, 0) != 0 && errno == ESRCH))
        return false;
    return read_stat(pid).state != 'Z';
}

std::string process_name(pid_t pid) {
    std::string name;
    std::getline(std::ifstream(proc_file(pid, "comm")), name);
    return printable(name);
}

daemon_state find_daemon(const std::string& cfg_file) {
    daemon_state state;
    state.address = printable(cfg_value(cfg_file, agt::config_key_of("TRAN_AGENT", "IP_ADDRESS")));
    state.port =
        std::atoi(cfg_value(cfg_file, agt::config_key_of("TRAN_AGENT", "CMD_PORT")).c_str());
    state.listening = port_listens(state.address, state.port);
    std::vector<candidate> candidates = list_candidates(segment_keys(cfg_file));
    drop_children(candidates);
    const auto sure = std::find_if(candidates.begin(), candidates.end(),
                                   [](const auto& one) { return one.readable; });
    const bool only_one = candidates.size() == 1;
    state.running = sure != candidates.end() || (!candidates.empty() && state.listening);
    if (!state.running || (sure == candidates.end() && !only_one))
        return state;
    const candidate& chosen = sure != candidates.end() ? *sure : candidates.front();
    state.pid = chosen.pid;
    state.started = boot_time() + chosen.stat.start_ticks / sysconf(_SC_CLK_TCK);
    state.attachments_known = chosen.readable;
    state.attached_ids = chosen.attached_ids;
    return state;
}

} // namespace kessctl
