// Processes that have to do with a configuration, as /proc shows them. What belongs to other users
// may stay unseen.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kessctl {

// The daemons that were started with this configuration file or have attached what it names; not
// their children.
std::vector<pid_t> daemons_of(const std::string& cfg_file);

// The processes that listen on a TCP port.
std::vector<pid_t> listeners_of(int port);

// The processes that have a segment attached, this one not among them.
std::vector<pid_t> attached_to(int shmid);

// Whether a process has it attached; true, too, where that cannot be seen.
bool may_have_attached(pid_t pid, int shmid);

// "pid (name)", or "pid (no longer there)".
std::string process_text(pid_t pid);

// The same of several, separated by commas.
std::string process_texts(const std::vector<pid_t>& pids);

} // namespace kessctl
