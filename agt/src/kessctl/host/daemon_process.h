// Finding the daemon of a configuration among the processes of the host.
//
// The daemon leaves no pid file. It is a process named kessard that has a segment of the
// configuration's keys attached; its children, which serve requests, have it too and are told by
// their parent. What another user's process has attached cannot be seen: then a listening command
// port speaks for the one process of that name. A process that was started with the configuration
// file without having attached anything is one too, but does not count as running: it may be
// starting, or work with keys that the file no longer names.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>
#include <vector>

#include "host/process.h"

namespace kessctl {

struct daemon_state {
    bool running = false;
    pid_t pid = 0; // 0: not known
    time_t started = 0;
    bool attachments_known = false;
    std::vector<attached_segment> attached; // those of the configuration's keys
    std::vector<pid_t> seen;                // all that can be seen, `pid` among them
    std::string address;                    // of the command port
    int port = 0;
    bool listening = false; // somebody does, on the command port
};

// Looks for the daemon of the configuration; nothing is asked of it.
daemon_state find_daemon(const std::string& cfg_file);

// All processes that are a daemon of the configuration, as `seen` above.
std::vector<pid_t> daemons_of(const std::string& cfg_file);

} // namespace kessctl
