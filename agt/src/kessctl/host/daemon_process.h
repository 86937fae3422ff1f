// Finding the daemon of a configuration among the processes of the host.
//
// The daemon leaves no pid file. It is the process named kessard that has a segment of the
// configuration's keys attached; its children, which serve requests, have it too and are told by
// their parent. What another user's process has attached cannot be seen: then a listening command
// port speaks for the one process of that name.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>
#include <vector>

namespace kessctl {

struct daemon_state {
    bool running = false;
    pid_t pid = 0; // 0: not known
    time_t started = 0;
    bool attachments_known = false;
    std::vector<int> attached_ids; // of segments of the configuration's keys
    std::string address;           // of the command port
    int port = 0;
    bool listening = false; // somebody does, on the command port
};

daemon_state find_daemon(const std::string& cfg_file);

// Whether the process exists and has not ended; one that may not be asked does.
bool process_alive(pid_t pid);

// The name of a process, unprintable bytes escaped; empty when there is none.
std::string process_name(pid_t pid);

} // namespace kessctl
