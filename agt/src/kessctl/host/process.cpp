// The processes of the host.
#include "host/process.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "wire/text.h"

namespace kessctl {
namespace {

namespace fs = std::filesystem;

std::string proc_path(pid_t pid, const char* name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

std::string read_whole(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

struct process_stat {
    char state = 'X'; // as of a process that is gone
    pid_t parent = 0;
    long long start_ticks = 0; // since the system started
};

process_stat read_stat(pid_t pid) {
    process_stat stat;
    const std::string text = read_whole(proc_path(pid, "stat"));
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

// A path of the environment that a process was started with.
fs::path path_variable(pid_t pid, const std::string& variable) {
    const std::string environment = '\0' + read_whole(proc_path(pid, "environ"));
    const std::size_t at = environment.find('\0' + variable);
    if (at == environment.npos)
        return {};
    // An absolute path replaces what stands before it.
    return fs::path(proc_path(pid, "cwd")) / (environment.c_str() + at + 1 + variable.size());
}

// The names in a directory that are numbers.
std::vector<pid_t> numbers_in(const std::string& directory) {
    std::vector<pid_t> pids;
    std::error_code error;
    for (fs::directory_iterator at(directory, error), end; !error && at != end; at.increment(error))
        if (const int pid = std::atoi(at->path().filename().c_str()); pid > 0)
            pids.push_back(pid);
    return pids;
}

std::string status_line(pid_t pid, const std::string& name) {
    std::ifstream file(proc_path(pid, "status"));
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(name))
            return line.substr(name.size());
    return {};
}

} // namespace

std::vector<pid_t> all_processes() {
    return numbers_in("/proc");
}

bool process_alive(pid_t pid) {
    if (pid <= 0 || (kill(pid, 0) != 0 && errno == ESRCH))
        return false;
    return read_stat(pid).state != 'Z';
}

std::string process_comm(pid_t pid) {
    std::string name;
    std::getline(std::ifstream(proc_path(pid, "comm")), name);
    return name;
}

bool has_thread(pid_t pid, const std::string& name) {
    constexpr std::size_t kept = 15; // of a name
    const std::string wanted = name.substr(0, kept);
    std::error_code error;
    for (fs::directory_iterator at(proc_path(pid, "task"), error), end; !error && at != end;
         at.increment(error)) {
        std::string found;
        std::getline(std::ifstream(at->path() / "comm"), found);
        if (found == wanted)
            return true;
    }
    return false;
}

std::string process_name(pid_t pid) {
    return printable(process_comm(pid));
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

pid_t parent_of(pid_t pid) {
    return read_stat(pid).parent;
}

std::optional<uid_t> uid_of(pid_t pid) {
    uid_t uid = 0;
    if (std::sscanf(status_line(pid, "Uid:").c_str(), "%*u %u", &uid) == 1)
        return uid;
    return {};
}

pid_t inner_pid(pid_t pid) {
    const std::string pids = status_line(pid, "NSpid:");
    return std::atoi(pids.substr(pids.find_last_of(" \t") + 1).c_str());
}

fs::path program_of(pid_t pid) {
    std::error_code unreadable;
    return fs::read_symlink(proc_path(pid, "exe"), unreadable);
}

time_t start_time(pid_t pid) {
    return boot_time() + read_stat(pid).start_ticks / sysconf(_SC_CLK_TCK);
}

time_t youngest_thread(pid_t pid) {
    time_t youngest = 0;
    for (const pid_t thread : numbers_in(proc_path(pid, "task")))
        youngest = std::max(youngest, start_time(thread));
    return youngest;
}

fs::path cfg_file_of(pid_t pid) {
    return path_variable(pid, "TRAN_AGT_CFG_FILE=");
}

fs::path home_of(pid_t pid) {
    return path_variable(pid, "TRAN_AGT_HOME=");
}

// A segment is mapped as the file "/SYSV<key>" with its identifier as the inode.
std::optional<std::vector<attached_segment>> segments_of(pid_t pid) {
    std::ifstream maps(proc_path(pid, "maps"));
    std::string line;
    if (!std::getline(maps, line))
        return {};
    std::vector<attached_segment> found;
    do {
        attached_segment one{};
        if (std::sscanf(line.c_str(), "%*s %*s %*s %*s %d /SYSV%8x", &one.id, &one.key) == 2)
            found.push_back(one);
    } while (std::getline(maps, line));
    return found;
}

std::vector<pid_t> attached_to(int shmid) {
    std::vector<pid_t> pids = all_processes();
    std::erase_if(pids, [shmid](pid_t pid) {
        const auto segments = segments_of(pid);
        return pid == getpid() || !segments ||
               std::none_of(segments->begin(), segments->end(),
                            [shmid](const attached_segment& one) { return one.id == shmid; });
    });
    return pids;
}

} // namespace kessctl
