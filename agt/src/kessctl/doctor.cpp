// kessctl doctor: what is wrong with an agent on this host, and what to do about it. Only looks:
// takes no lock, changes nothing; the daemon sees one connection that closes at once.
#include "commands.h"

#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include <CLI/CLI.hpp>

#include "agent_processes.h"
#include "check_config.h"
#include "command_client.h"
#include "daemon_process.h"
#include "shared_view.h"
#include "wait.h"

namespace kessctl {
namespace {

constexpr int ANSWER_LIMIT_MS = 3000;
constexpr int HELD_LIMIT_MS =
    1000; // a semaphore that one living process holds for longer is reported
constexpr int LOOK_AGAIN_MS = 20;
constexpr int TRIGGER_LIMIT_SEC = 60;
constexpr double FREE_LIMIT_PCNT = 5.0;
constexpr char CLEAN_AND_START[] =
    "stop the daemon and the processes that use it, run kessctl clean, start the daemon";

struct patient {
    const config_file& file;
    std::string home;
    std::vector<pid_t> daemons;
    bool watchdog = true;
    int found = 0;

    bool running() const { return !daemons.empty(); }
    std::string value(const config_key& key) const { return cfg_value(file.path(), key); }
    void report(const std::string& what, const std::string& advice) {
        std::printf("%s\n    %s\n", what.c_str(), advice.c_str());
        ++found;
    }
};

void examine_config(patient& agent) {
    const std::vector<finding> all = check_config(agent.file, agent.home);
    const long errors = std::count_if(
        all.begin(), all.end(), [](const finding& one) { return one.level == severity::error; });
    if (errors > 0)
        agent.report("configuration: errors in " + agent.file.path() + ": " +
                         std::to_string(errors),
                     "run kessctl check-config " + agent.file.path());
}

// The daemon closes a connection whose other side has ended, without a word and without a line in
// its log.
bool answers(const patient& agent, std::string* why) {
    const std::string address = agent.value(agt::config_key_of("TRAN_AGENT", "IP_ADDRESS"));
    const int port = number_read(agent.value(agt::config_key_of("TRAN_AGENT", "CMD_PORT")));
    command_client client;
    if (client.connect(address == "0.0.0.0" ? "127.0.0.1" : address, port, ANSWER_LIMIT_MS) &&
        shutdown(client.fd(), SHUT_WR) == 0 && client.wait_closed(ANSWER_LIMIT_MS))
        return true;
    *why = "port " + std::to_string(port) + ": " + client.error();
    return false;
}

void examine_daemon(patient& agent) {
    if (!agent.running()) {
        const std::vector<pid_t> holders =
            listeners_of(number_read(agent.value(agt::config_key_of("TRAN_AGENT", "CMD_PORT"))));
        agent.report(
            "daemon: no kessard can be seen that runs with " + agent.file.path() +
                (holders.empty() ? "" : "; its port is held by " + process_texts(holders)),
            holders.empty()
                ? "start it: kessard -d; if it runs as another user, run the doctor as root"
                : "end that process or change CMD_PORT, then start kessard -d");
        return;
    }
    if (agent.daemons.size() > 1)
        agent.report("daemon: several run with this configuration: " + process_texts(agent.daemons),
                     "end all but one with SIGTERM");
    std::string why;
    if (!answers(agent, &why))
        agent.report("daemon: " + process_texts(agent.daemons) + " does not answer, " + why,
                     "look at the end of its log; end it with SIGTERM and start it again");
}

std::string name_of(const agt::shared_object& object) {
    return std::string(object.keyword) + " (" + object.name + ")";
}

// The value of a semaphore and the process that changed it last.
struct semaphore_state {
    int value;
    pid_t pid;
};

semaphore_state look_at_semaphore(int semid, int number) {
    return {semctl(semid, number, GETVAL), semctl(semid, number, GETPID)};
}

// Whether a living process keeps a semaphore: it stays taken by the same one however often one
// looks.
bool stays_held(int semid, int number, pid_t pid) {
    const long long until_ms = agt::monotonic_ms() + HELD_LIMIT_MS;
    while (agt::monotonic_ms() < until_ms) {
        agt::sleep_ms(LOOK_AGAIN_MS);
        const semaphore_state now = look_at_semaphore(semid, number);
        if (now.value != 0 || now.pid != pid)
            return false;
    }
    return true;
}

void examine_semaphore(patient& agent, const object_state& state, int number) {
    const semaphore_state now = look_at_semaphore(state.id, number);
    const std::string which =
        "semaphore " + std::to_string(number) + " of " + name_of(*state.object);
    if (now.value > 1)
        agent.report(which + ": value " + std::to_string(now.value) +
                         ", so several processes can hold it at once",
                     CLEAN_AND_START);
    if (now.value != 0)
        return;
    if (!process_alive(now.pid))
        agent.report(which + ": held by process " + process_text(now.pid) +
                         "; nobody gives it back",
                     CLEAN_AND_START);
    else if (stays_held(state.id, number, now.pid))
        agent.report(which + ": held by process " + process_text(now.pid) + " for more than " +
                         std::to_string(HELD_LIMIT_MS / 1000) + " s",
                     "look what that process does; if it hangs, end it");
}

// What the daemon has attached instead of the object is a segment that was removed.
void examine_segment(patient& agent, const object_state& state) {
    for (const pid_t pid : agent.daemons)
        if (!may_have_attached(pid, state.id))
            agent.report(name_of(*state.object) + ": the daemon " + process_text(pid) +
                             " uses another segment than the one of key " + state.key,
                         CLEAN_AND_START);
    if (!agent.running() && state.attaches > 0)
        agent.report(
            name_of(*state.object) + ": attached " + std::to_string(state.attaches) +
                " times without a daemon: " + process_texts(attached_to(state.id)),
            "start the daemon, which takes the segment over; or end them before kessctl clean");
}

void examine_object(patient& agent, const object_state& state) {
    const agt::shared_object& object = *state.object;
    if (!state.exists()) {
        if (agent.running() && (agent.watchdog || !object.watchdog_only))
            agent.report(name_of(object) + ": missing while the daemon runs, key " + state.key +
                             ": " + state.fault,
                         "restart the daemon, then the processes that use it");
        return;
    }
    if (state.size == 0)
        return agent.report(describe_fault(state),
                            "run the doctor as the daemon's user or as root");
    if (state.size != object.size)
        agent.report(name_of(object) + ": " +
                         (state.size < object.size ? "too small, " : "of the wrong size, ") +
                         std::to_string(state.size) + " instead of " + std::to_string(object.size) +
                         " " + object.unit(),
                     "another version or program made it: give it another key, or remove it with "
                     "kessctl clean --force");
    if (object.kind == agt::object_kind::segment)
        return examine_segment(agent, state);
    for (int i = 0; i < static_cast<int>(std::min(state.size, object.size)); ++i)
        examine_semaphore(agent, state, i);
}

void examine_objects(patient& agent) {
    std::string stale;
    for (const agt::shared_object* object : agt::SHARED_OBJECTS) {
        const object_state state = find_object(agent.file.path(), *object);
        examine_object(agent, state);
        if (state.exists() && state.attaches == 0)
            stale += " " + std::string(object->keyword);
    }
    if (!agent.running() && !stale.empty())
        agent.report(
            "stale: left by a daemon that has ended:" + stale,
            "the next start takes them over with their content; kessctl clean removes them");
}

void examine_log(patient& agent) {
    const std::string directory =
        full_path(agent.value(agt::config_key_of("COMMON", "LOG_HOME")), agent.home) +
        agt::LOG_SUBDIRECTORY;
    struct statvfs disk {};
    if (access(directory.c_str(), W_OK | X_OK) != 0 || statvfs(directory.c_str(), &disk) != 0)
        return agent.report(
            "log: " + directory + ": " + std::strerror(errno),
            "make the directory and give it to the daemon's user, then restart the daemon");
    const double free_pcnt = 100.0 * static_cast<double>(disk.f_bavail) /
                             static_cast<double>(std::max<fsblkcnt_t>(disk.f_blocks, 1));
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", free_pcnt);
    if (free_pcnt < FREE_LIMIT_PCNT)
        agent.report("log: only " + std::string(text) + " % of the file system of " + directory +
                         " are free",
                     "remove old log files");
}

// The daemon looks for its trigger file every second and removes it.
void examine_trigger(patient& agent) {
    const std::string path = full_path(
        agent.value(agt::config_key_of("CHECK_FILES", "SVC_UPDATE_CHK_FILE")), agent.home);
    struct stat about {};
    if (stat(path.c_str(), &about) == 0 && S_ISREG(about.st_mode) &&
        std::time(nullptr) - about.st_mtime > TRIGGER_LIMIT_SEC)
        agent.report("leftover: " + path + ", which triggers a service update, has not been taken",
                     agent.running()
                         ? "the daemon cannot remove it: look at the permissions of its directory"
                         : "remove it, or the next start updates the services at once");
}

exit_status examine(const std::string& cfg_file) {
    config_file file;
    const std::string wrong =
        cfg_file.empty() ? "no file: give --config, or set TRAN_AGT_CFG_FILE" : file.open(cfg_file);
    if (!wrong.empty())
        return complain(wrong);
    const char* home = std::getenv("TRAN_AGT_HOME");
    patient agent{file, home == nullptr ? "" : home, daemons_of(cfg_file)};
    const std::string interval =
        agent.value(agt::config_key_of("KESSARD", "WORKER_CHECK_INTERVAL"));
    agent.watchdog = !interval.empty() && number_read(interval) != 0;
    for (const auto step :
         {examine_config, examine_daemon, examine_objects, examine_log, examine_trigger})
        step(agent);
    std::printf("findings: %d\n", agent.found);
    return agent.found == 0 ? EXIT_OK : EXIT_REFUSED;
}

} // namespace

void add_doctor(CLI::App& app, exit_status* status) {
    const auto cfg_file = std::make_shared<std::string>(default_cfg_file());
    CLI::App* command = app.add_subcommand(
        "doctor", "Say what is wrong with the agent on this host, and what to do");
    command->add_option("--config,--cfg", *cfg_file,
                        "Configuration file (default: TRAN_AGT_CFG_FILE)");
    command->footer("Only looks. Relative paths are taken under TRAN_AGT_HOME. Exit status 0 "
                    "without findings, 1 with\n"
                    "findings, 2 when the configuration file cannot be read.");
    command->callback([cfg_file, status] { *status = examine(*cfg_file); });
}

} // namespace kessctl
