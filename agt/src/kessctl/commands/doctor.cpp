// kessctl doctor: what is wrong with an agent on this host, and what to do about it. Only looks:
// takes no lock, changes nothing; the daemon sees one connection that closes at once.
#include "commands/commands.h"

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
#include <nlohmann/json.hpp>

#include "agent/agent_diagnosis.h"
#include "agent/daily_log.h"
#include "commands/columns.h"
#include "commands/json_output.h"
#include "config/check_config.h"
#include "host/listener.h"
#include "server/command_client.h"
#include "tls.h"
#include "wait.h"

namespace kessctl {
namespace {

constexpr int ANSWER_LIMIT_MS = 3000;
constexpr int HELD_LIMIT_MS =
    1000; // a semaphore that one living process holds for longer is reported
constexpr int LOOK_AGAIN_MS = 20;
constexpr int START_LIMIT_SEC = 10;
constexpr int TRIGGER_LIMIT_SEC = 60;
constexpr double FREE_LIMIT_PCNT = 5.0;

struct doctor_options {
    std::string cfg_file = default_cfg_file();
    tls_options tls;
    bool json = false;
};

struct patient {
    const agt::config_file& file;
    std::string home;
    tls_options tls;
    bool json;
    agent_snapshot now;
    nlohmann::ordered_json found = nlohmann::ordered_json::array();
    std::string unseen{}; // what only the agent's user and root may look at

    bool may_look() const {
        return geteuid() == 0 || now.daemon.user.value_or(geteuid()) == geteuid();
    }

    std::string value(const agt::config_key& key) const { return cfg_value(file.path(), key); }
    void report(const std::string& what, const std::string& advice) {
        found.push_back({{"what", what}, {"advice", advice}});
        if (!json)
            std::fputs((fitted(STDOUT_FILENO, what) + fitted(STDOUT_FILENO, advice, 4)).c_str(),
                       stdout);
    }
};

void examine_config(patient& agent) {
    if (!agent.may_look()) {
        agent.unseen += ", configuration";
        return;
    }
    const std::vector<finding> all = check_config(agent.file, agent.home);
    const long errors = std::count_if(
        all.begin(), all.end(), [](const finding& one) { return one.level == severity::error; });
    if (errors > 0)
        agent.report("configuration: errors in " + agent.file.path() + ": " +
                         std::to_string(errors),
                     "run kessctl check-config " + agent.file.path());
}

std::int64_t refused_for_places(const state_view& state) {
    return state.known() ? state.values.connections_refused[STATE_REFUSED_PLACE] : 0;
}

// The daemon closes a connection whose other side has ended, without a word and without a line in
// its log. One that refuses the certificate answers, too.
bool answers(const patient& agent, std::string* why) {
    const int port = number_read(agent.value(agt::config_key_of("TRAN_AGENT", "CMD_PORT")));
    command_client client;
    const auto identity = open_tls(agent.file.path(), agent.tls.files, why);
    if (!why->empty())
        return false;
    client.use_tls(identity, agent.tls.server_name);
    if (client.connect(agent_host(agent.file.path()), port, ANSWER_LIMIT_MS) &&
        shutdown(client.fd(), SHUT_WR) == 0 &&
        (client.wait_closed(ANSWER_LIMIT_MS) || !agt::tls_failure(client.fd()).empty()))
        return true;
    *why = "port " + std::to_string(port) + ": " + client.error();
    return false;
}

// Whether the connection just made found no place.
void examine_places(patient& agent) {
    const state_view after = read_state(agent.file.path(), agent.now.daemon);
    if (refused_for_places(after) > refused_for_places(agent.now.state))
        agent.report("command port: all five places are held, so the connection was closed",
                     "end connections that nobody needs: ss -tnp sport = :" +
                         std::to_string(agent.now.daemon.port));
}

// Who holds the port of a daemon that does not run, and whether one that listens answers.
void examine_port(patient& agent) {
    const daemon_state& daemon = agent.now.daemon;
    std::string why;
    if (!daemon.listening || (daemon.running && !has_started(agent.now)))
        return;
    if (!daemon.running && daemon.seen.empty())
        agent.report("daemon: port " + std::to_string(daemon.port) +
                         " is held by another process: " + process_texts(listeners_of(daemon.port)),
                     "end that process or change CMD_PORT, then start the daemon: " +
                         start_command());
    else if (answers(agent, &why))
        examine_places(agent);
    else if (why.starts_with("TLS: ") && !agent.may_look())
        agent.unseen += ", command port";
    else
        agent.report("daemon: " + process_texts(daemon.seen) + " does not answer, " + why,
                     "look at the end of its log; end it with SIGTERM and start it again");
}

void examine_snapshot(patient& agent) {
    for (const problem& one : diagnose(agent.now, look_options().full_percent).problems)
        agent.report(one.what, one.advice);
}

// Whether a living process keeps a semaphore: it stays taken by the same one however often one
// looks.
bool stays_held(int semid, int number, pid_t pid) {
    const long long until_ms = agt::monotonic_ms() + HELD_LIMIT_MS;
    while (agt::monotonic_ms() < until_ms) {
        agt::sleep_ms(LOOK_AGAIN_MS);
        const semaphore_state now = read_semaphore(semid, number);
        if (!now.held() || now.pid != pid)
            return false;
    }
    return true;
}

void examine_semaphores(patient& agent) {
    if (agent.now.daemon.running && !has_started(agent.now))
        return;
    for (const semaphore_set& set : agent.now.semaphores)
        for (std::size_t i = 0; i < set.semaphores.size(); ++i) {
            const semaphore_state& one = set.semaphores[i];
            if (one.held() && one.alive && stays_held(set.object.id, static_cast<int>(i), one.pid))
                agent.report(semaphore_name(*set.object.object, i) + " is held by process " +
                                 process_text(one.pid) + " for more than " +
                                 std::to_string(HELD_LIMIT_MS / 1000) + " s",
                             "look what that process does; if it hangs, end it");
        }
}

void examine_log(patient& agent) {
    if (!agent.may_look()) {
        agent.unseen += ", log";
        return;
    }
    const std::string directory = log_directory(agent.file.path(), agent.home);
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
                     agent.now.daemon.seen.empty()
                         ? "remove it, or the next start updates the services at once"
                         : "the daemon cannot remove it: look at the permissions of its directory");
}

// What a start of a second or two has not made yet is not missing.
agent_snapshot look_when_started(const std::string& cfg_file) {
    agent_snapshot now = take_snapshot(cfg_file);
    while (!now.daemon.seen.empty() && !has_started(now) &&
           std::time(nullptr) - start_time(now.daemon.seen.front()) < START_LIMIT_SEC) {
        agt::sleep_ms(LOOK_AGAIN_MS);
        now = take_snapshot(cfg_file);
    }
    return now;
}

exit_status examine(const doctor_options& chosen) {
    agt::config_file file;
    const std::string wrong = open_cfg(chosen.cfg_file, "give --config", &file);
    if (!wrong.empty())
        return complain(wrong);
    const char* home = std::getenv("TRAN_AGT_HOME");
    patient agent{file, home == nullptr ? "" : home, chosen.tls, chosen.json,
                  look_when_started(chosen.cfg_file)};
    for (const auto step : {examine_config, examine_snapshot, examine_port, examine_semaphores,
                            examine_log, examine_trigger})
        step(agent);
    const std::string unseen = agent.unseen.empty() ? "" : agent.unseen.substr(2);
    if (chosen.json)
        print_json({{"findings", agent.found}, {"not_looked_at", unseen}});
    else if (!unseen.empty())
        std::fputs(fitted(STDOUT_FILENO,
                          "not looked at: " + unseen + "; you may not look, run it as user " +
                              std::to_string(*agent.now.daemon.user) + ", the agent's, or as root")
                       .c_str(),
                   stdout);
    if (!chosen.json)
        std::printf("findings: %zu\n", agent.found.size());
    return agent.found.empty() ? EXIT_OK : EXIT_REFUSED;
}

} // namespace

void add_doctor(CLI::App& app, exit_status* status) {
    const auto chosen = std::make_shared<doctor_options>();
    CLI::App* command = app.add_subcommand(
        "doctor", "Say what is wrong with the agent on this host, and what to do");
    add_cfg_option(*command, chosen->cfg_file);
    add_tls_options(*command, chosen->tls);
    add_json_flag(*command, chosen->json);
    command->footer("Only looks. Relative paths are taken under TRAN_AGT_HOME. Exit status 0 "
                    "without findings, 1 with "
                    "findings, 2 when the configuration file cannot be read.");
    command->callback([chosen, status] { *status = examine(*chosen); });
}

} // namespace kessctl
