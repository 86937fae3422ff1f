// The processes of the host, as /proc shows them. What belongs to other users may stay unseen.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kessctl {

// Every process that can be seen, the calling one too.
std::vector<pid_t> all_processes();

// Whether the process exists and has not ended; one that may not be asked does.
bool process_alive(pid_t pid);

// The name of a process as the system has it; empty when there is none.
std::string process_comm(pid_t pid);

// The same with unprintable bytes escaped.
std::string process_name(pid_t pid);

// "pid (name)", or "pid (no longer there)".
std::string process_text(pid_t pid);

// The same of several, separated by commas.
std::string process_texts(const std::vector<pid_t>& pids);

// Whether the process has a thread of that name, as far as the system keeps names.
bool has_thread(pid_t pid, const std::string& name);

// Its parent; 0 when there is no such process.
pid_t parent_of(pid_t pid);

// The user that it runs as; none when there is no such process.
std::optional<uid_t> uid_of(pid_t pid);

// Its own number for itself, which is another one in a namespace of processes; 0 when there is no
// such process.
pid_t inner_pid(pid_t pid);

// The file that it executes; empty when that may not be seen.
std::filesystem::path program_of(pid_t pid);

// When the process started, by the system's clock; the system's own start when there is none.
time_t start_time(pid_t pid);

// The same of the thread of a process that was started last.
time_t youngest_thread(pid_t pid);

// TRAN_AGT_CFG_FILE of the environment that a process was started with, as a path from here; empty
// without one or when it may not be read.
std::filesystem::path cfg_file_of(pid_t pid);

// The same of TRAN_AGT_HOME.
std::filesystem::path home_of(pid_t pid);

struct attached_segment {
    int id;
    unsigned key;
};

// The shared memory that a process has attached; none when its memory map may not be read.
std::optional<std::vector<attached_segment>> segments_of(pid_t pid);

// The processes that have a segment attached, this one not among them.
std::vector<pid_t> attached_to(int shmid);

} // namespace kessctl
