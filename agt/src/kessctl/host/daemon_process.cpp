// Finding the daemon of a configuration among the processes of the host.
#include "host/daemon_process.h"

#include <sys/shm.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <optional>
#include <set>

#include "host/cfg_value.h"
#include "host/listener.h"
#include "host/shared_view.h"
#include "wire/text.h"

namespace kessctl {
namespace {

constexpr char DAEMON_NAME[] = "kessard";

struct candidate {
    pid_t pid = 0;
    std::optional<uid_t> uid;
    bool readable = false; // its memory map
    bool same_cfg = false; // started with the configuration file
    std::vector<attached_segment> attached;

    bool may_run() const { return !readable || !attached.empty(); }
};

std::set<unsigned> segment_keys(const std::string& cfg_file) {
    std::set<unsigned> keys;
    for (const agt::shared_object* object : agt::SHARED_OBJECTS)
        if (object->kind == agt::object_kind::segment)
            keys.insert(static_cast<unsigned>(object_key(cfg_value(cfg_file, object->key()))));
    keys.erase(IPC_PRIVATE);
    return keys;
}

candidate look_at(pid_t pid, const std::string& cfg_file, const std::set<unsigned>& keys) {
    candidate one;
    std::error_code error;
    one.pid = pid;
    one.uid = uid_of(pid);
    one.same_cfg = std::filesystem::equivalent(cfg_file_of(pid), cfg_file, error);
    if (const auto segments = segments_of(pid)) {
        one.readable = true;
        std::copy_if(segments->begin(), segments->end(), std::back_inserter(one.attached),
                     [&](const attached_segment& segment) { return keys.contains(segment.key); });
    }
    return one;
}

// The processes that may be the daemon; not those whose parent is one.
std::vector<candidate> list_candidates(const std::string& cfg_file) {
    const std::set<unsigned> keys = segment_keys(cfg_file);
    std::vector<candidate> found;
    std::set<pid_t> pids;
    for (const pid_t pid : all_processes()) {
        if (process_comm(pid) != DAEMON_NAME || !process_alive(pid))
            continue;
        const candidate one = look_at(pid, cfg_file, keys);
        if (!one.may_run() && !one.same_cfg)
            continue;
        found.push_back(one);
        pids.insert(pid);
    }
    std::erase_if(found, [&](const candidate& one) { return pids.contains(parent_of(one.pid)); });
    return found;
}

// The user who owns the first of the agent's segments that is there.
std::optional<uid_t> segment_owner(const std::string& cfg_file) {
    shmid_ds about{};
    for (const agt::shared_object* object : agt::SHARED_OBJECTS)
        if (object->kind == agt::object_kind::segment &&
            shmctl(find_object(cfg_file, *object).id, IPC_STAT, &about) == 0)
            return about.shm_perm.uid;
    return {};
}

// What tells the daemon from others of its name.
struct daemon_marks {
    std::vector<listening_socket> sockets;
    std::vector<pid_t> holders; // of the sockets; empty when they cannot be seen
    std::optional<uid_t> owner;

    bool right_user(const candidate& one) const {
        return !owner || !one.uid || one.uid == owner || one.uid == 0U;
    }
    bool holds_port(const candidate& one) const {
        if (!holders.empty())
            return std::find(holders.begin(), holders.end(), one.pid) != holders.end();
        return std::any_of(sockets.begin(), sockets.end(),
                           [&](const listening_socket& socket) { return one.uid == socket.uid; });
    }
    bool fit(const candidate& one) const {
        return one.may_run() && right_user(one) && holds_port(one);
    }
};

// The one that runs with the configuration: the first that is seen to fit, else the only one of
// which that cannot be seen. Null when there is none or more than one.
const candidate* choose(const std::vector<candidate>& candidates, const daemon_marks& marks) {
    const candidate* hidden = nullptr;
    int hidden_num = 0;
    for (const candidate& one : candidates) {
        if (!marks.fit(one))
            continue;
        if (one.readable)
            return &one;
        hidden = &one;
        ++hidden_num;
    }
    return hidden_num == 1 ? hidden : nullptr;
}

std::string stranger_text(const candidate& one, const daemon_marks& marks) {
    const std::string program = printable(program_of(one.pid).string());
    const std::string file = program.substr(program.rfind('/') + 1);
    const std::string what =
        !marks.right_user(one) ? "runs as user " + std::to_string(*one.uid) +
                                     ", who does not own the agent's shared memory"
        : !program.empty() && !file.starts_with(DAEMON_NAME)
            ? "is another program under that name, " + program
            : "does not listen on the command port: a child that a daemon has left behind";
    return process_text(one.pid) + " " + what;
}

} // namespace

daemon_state find_daemon(const std::string& cfg_file) {
    daemon_state state;
    state.address = printable(cfg_value(cfg_file, agt::config_key_of("TRAN_AGENT", "IP_ADDRESS")));
    state.port =
        std::atoi(cfg_value(cfg_file, agt::config_key_of("TRAN_AGENT", "CMD_PORT")).c_str());
    daemon_marks marks{sockets_at(state.address, state.port), {}, segment_owner(cfg_file)};
    marks.holders = holders_of(marks.sockets);
    state.listening = !marks.sockets.empty();
    state.user = marks.owner;
    const std::vector<candidate> candidates = list_candidates(cfg_file);
    const candidate* chosen = choose(candidates, marks);
    for (const candidate& one : candidates) {
        const bool fits = marks.fit(one);
        state.running = state.running || fits;
        if (&one == chosen || (one.same_cfg && (fits || one.attached.empty())))
            state.seen.push_back(one.pid);
        else if (!fits && !one.attached.empty())
            state.strangers.push_back(stranger_text(one, marks));
    }
    if (chosen == nullptr)
        return state;
    state.pid = chosen->pid;
    state.user = chosen->uid;
    state.started = start_time(chosen->pid);
    state.youngest_thread = youngest_thread(chosen->pid);
    state.attachments_known = chosen->readable;
    state.attached = chosen->attached;
    return state;
}

std::string start_command() {
    namespace fs = std::filesystem;
    std::error_code error;
    const auto is_there = [&](const char* path) { return fs::exists(path, error); };
    const bool service =
        is_there("/run/systemd/system") && (is_there("/etc/systemd/system/kessard.service") ||
                                            is_there("/lib/systemd/system/kessard.service"));
    return service ? "systemctl start kessard" : "kessard -d, as the agent's user";
}

std::vector<pid_t> daemons_of(const std::string& cfg_file) {
    return find_daemon(cfg_file).seen;
}

} // namespace kessctl
