// Finding the daemon of a configuration among the processes of the host.
//
// The daemon leaves no pid file. It is a process named kessard that holds the listening socket of
// the configuration's command port and runs as the user who owns the agent's segments, or as root.
// Whoever may not see what another user's process holds goes by the user of the socket, as
// /proc/net/tcp has it, and by the one process of that name and user. What has a segment of the
// configuration's keys attached under the daemon's name and is not the daemon is a stranger: a
// child that an ended daemon has left behind, or something that took the name. A process that was
// started with the configuration file and has attached nothing yet may be a daemon that is
// starting; it does not count as running.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "host/process.h"

namespace kessctl {

struct daemon_state {
    bool running = false;
    pid_t pid = 0; // 0: not known
    time_t started = 0;
    time_t youngest_thread = 0; // when it started
    bool attachments_known = false;
    std::vector<attached_segment> attached; // those of the configuration's keys
    std::vector<pid_t> seen;                // all that can be seen, `pid` among them
    std::vector<std::string> strangers;     // each with what it is
    std::optional<uid_t> user;              // of the daemon, else of the agent's segments
    std::string address;                    // of the command port
    int port = 0;
    bool listening = false; // somebody does, on the command port
};

// Looks for the daemon of the configuration; nothing is asked of it.
daemon_state find_daemon(const std::string& cfg_file);

// All processes that are a daemon of the configuration, as `seen` above.
std::vector<pid_t> daemons_of(const std::string& cfg_file);

// How the daemon is started on this host.
std::string start_command();

} // namespace kessctl
