// Finding the daemon of a configuration among the processes of the host.
#include "host/daemon_process.h"

#include <sys/ipc.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
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

// The one that runs with the configuration: the first seen to have a segment attached, else the
// only one of which that cannot be seen. Null when there is none or more than one.
const candidate* choose(const std::vector<candidate>& candidates, bool listening) {
    const auto sure = std::find_if(candidates.begin(), candidates.end(), [](const candidate& one) {
        return one.readable && one.may_run();
    });
    if (sure != candidates.end())
        return &*sure;
    const auto hidden = [](const candidate& one) { return !one.readable; };
    return listening && std::count_if(candidates.begin(), candidates.end(), hidden) == 1
               ? &*std::find_if(candidates.begin(), candidates.end(), hidden)
               : nullptr;
}

} // namespace

daemon_state find_daemon(const std::string& cfg_file) {
    daemon_state state;
    state.address = printable(cfg_value(cfg_file, agt::config_key_of("TRAN_AGENT", "IP_ADDRESS")));
    state.port =
        std::atoi(cfg_value(cfg_file, agt::config_key_of("TRAN_AGENT", "CMD_PORT")).c_str());
    state.listening = port_listens(state.address, state.port);
    const std::vector<candidate> candidates = list_candidates(cfg_file);
    const candidate* chosen = choose(candidates, state.listening);
    for (const candidate& one : candidates) {
        state.running = state.running || (one.may_run() && (one.readable || state.listening));
        if (one.same_cfg || &one == chosen)
            state.seen.push_back(one.pid);
    }
    if (chosen == nullptr)
        return state;
    state.pid = chosen->pid;
    state.started = start_time(chosen->pid);
    state.attachments_known = chosen->readable;
    state.attached = chosen->attached;
    return state;
}

std::vector<pid_t> daemons_of(const std::string& cfg_file) {
    return find_daemon(cfg_file).seen;
}

} // namespace kessctl
