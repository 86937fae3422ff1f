// What is wrong with an agent, by one look at it.
#include "agent/agent_diagnosis.h"

#include <algorithm>
#include <cstdio>

#include "agent/daemon_health.h"
#include "agent/report_text.h"
#include "wire/text.h"

namespace kessctl {
namespace {

constexpr int START_SEC = 10; // the watchdog makes its objects five seconds after its start
constexpr char RESTART_ALL[] = "restart the daemon, then the processes that use it";
constexpr char LOOK_AT_PROCESS[] =
    "look at its log; whoever keeps the agent's processes has to start it again";

bool is_attached(const daemon_state& daemon, int shmid) {
    return std::any_of(daemon.attached.begin(), daemon.attached.end(),
                       [shmid](const attached_segment& one) { return one.id == shmid; });
}

bool is_missed(const agent_snapshot& now, const object_state& state) {
    return has_started(now) &&
           (!state.object->watchdog_only ||
            (now.watchdog_on && now.taken - now.daemon.youngest_thread >= START_SEC));
}

void judge_object(const agent_snapshot& now, const object_state& state, problem_list& problems) {
    const std::string name = object_name(*state.object);
    const std::string key = state.key.empty() ? "" : ", key " + state.key;
    const std::string with_size = std::to_string(state.size) + " instead of " +
                                  std::to_string(state.object->size) + " " + state.object->unit();
    if (!state.exists() && is_missed(now, state))
        problems.push_back(
            {name + ": missing while the daemon runs" + key + ": " + state.fault, RESTART_ALL});
    if (!state.exists())
        return;
    const char* const other = "another version or program made it: give it another key, or remove "
                              "it with kessctl clean --force";
    if (state.size != 0 && state.size < state.object->size)
        problems.push_back({name + ": too small, " + with_size, other});
    else if (!state.fault.empty())
        problems.push_back(
            {name + ": " + state.fault, "look again as the daemon's user or as root"});
    else if (state.size > state.object->size)
        problems.push_back({name + ": of the wrong size, " + with_size, other, false});
}

// What the daemon has attached instead of the object is a segment that was removed.
void judge_segment(const agent_snapshot& now, const object_state& segment, problem_list& problems) {
    const daemon_state& daemon = now.daemon;
    judge_object(now, segment, problems);
    if (!segment.exists())
        return;
    if (daemon.attachments_known && has_started(now) && !segment.object->watchdog_only &&
        !is_attached(daemon, segment.id))
        problems.push_back({object_name(*segment.object) + ": the daemon " +
                                process_text(daemon.pid) +
                                " uses another segment than the one of key " + segment.key,
                            CLEAN_AND_START});
    if (!daemon.running && segment.attaches > 0)
        problems.push_back(
            {object_name(*segment.object) + ": attached " + std::to_string(segment.attaches) +
                 " times without a daemon: " + process_texts(attached_to(segment.id)),
             "start the daemon, which takes the segment over; or end them before kessctl clean",
             false});
}

void judge_semaphores(const agent_snapshot& now, const semaphore_set& set, problem_list& problems) {
    judge_object(now, set.object, problems);
    for (std::size_t i = 0; i < set.semaphores.size(); ++i) {
        const semaphore_state& one = set.semaphores[i];
        const std::string name = semaphore_name(*set.object.object, i);
        if (one.held() && !one.alive)
            problems.push_back({name + " is held by the dead process " + std::to_string(one.pid) +
                                    "; nobody gives it back",
                                CLEAN_AND_START});
        if (one.value > 1)
            problems.push_back({name + " has the value " + std::to_string(one.value) +
                                    ", so several processes can hold it at once",
                                CLEAN_AND_START});
    }
}

void judge_daemon(const agent_snapshot& now, problem_list& problems) {
    const daemon_state& daemon = now.daemon;
    if (daemon.running && !has_started(now) && now.uptime_sec() >= START_SEC)
        problems.push_back(
            {"the daemon has not finished its start for " + duration(now.uptime_sec()),
             "it waits for the server or for a semaphore: the end of its log says "
             "which; when the server's packets are lost that takes minutes"});
    for (const std::string& stranger : daemon.strangers)
        problems.push_back({stranger, "end it, unless it serves a request; a daemon whose file was "
                                      "changed since it started is restarted"});
    if (daemon.seen.size() > 1)
        problems.push_back(
            {"several daemons run with this configuration: " + process_texts(daemon.seen),
             "end all but one with SIGTERM", false});
}

// A file that only the daemon's user may read is in order.
void judge_certificate(const agent_snapshot& now, problem_list& problems) {
    if (!now.certificate || !now.certificate->fault.empty())
        return;
    const long days = now.certificate->days(now.taken);
    if (days < 30)
        problems.push_back(
            {days < 0 ? "the TLS certificate has expired"
                      : "the TLS certificate expires in " + std::to_string(days) + " days",
             "put a new one in its place: " + printable(now.certificate->file), days < 7});
}

void judge_registry(const agent_snapshot& now, problem_list& problems) {
    if (!now.registry_fault.empty())
        problems.push_back(
            {"the process registry is corrupt: " + now.registry_fault, CLEAN_AND_START});
    for (const process_row& process : now.processes) {
        const std::string name =
            "process " + process.program + " (row " + std::to_string(process.row) + ")";
        if (process.dead())
            problems.push_back({name + " is dead: there is no pid " + std::to_string(process.pid),
                                LOOK_AT_PROCESS});
        else if (!process.as_wanted())
            problems.push_back({name + " is in state " + std::to_string(process.state) +
                                    ", wanted is " + std::to_string(process.wanted),
                                LOOK_AT_PROCESS});
    }
}

void judge_fill(const fill_level& fill, double full_percent, const char* advice,
                problem_list& problems) {
    char percent[32];
    std::snprintf(percent, sizeof percent, "%.1f", fill.percent());
    if (fill.known && !fill.fault.empty())
        problems.push_back({"the " + fill.name + " is corrupt: " + fill.fault, CLEAN_AND_START});
    else if (fill.known && fill.percent() >= full_percent)
        problems.push_back({"the " + fill.name + " is " + percent + " % full", advice});
}

void judge_fills(const agent_snapshot& now, double full_percent, problem_list& problems) {
    constexpr double never = 1000;
    judge_fill(now.service_fill, full_percent, "take services off the server's list", problems);
    judge_fill(now.trace_fill, full_percent, "trace fewer processes and threads", problems);
    judge_fill(now.cache_fill, never, "", problems);
    for (const fill_level& queue : now.queues)
        judge_fill(queue, full_percent,
                   "look whether whoever empties the queue runs: the daemon's notifier with its "
                   "server, or the log parser",
                   problems);
}

void judge_settings(const agent_snapshot& now, problem_list& problems) {
    if (!now.settings || (now.settings->qcnt >= 1 && now.settings->qcnt <= LOG_QUE_MAX &&
                          now.settings->qcnt_mask == now.settings->qcnt - 1))
        return;
    problems.push_back({"the settings name " + std::to_string(now.settings->qcnt) +
                            " log queues with the mask " + std::to_string(now.settings->qcnt_mask),
                        "set the number again: kessctl set-config --log-qcnt 1, 2, 4, 8 or 16"});
}

problem absence(const agent_snapshot& now) {
    if (!now.daemon.seen.empty())
        return {"the daemon " + process_texts(now.daemon.seen) +
                    " has none of the objects that its configuration names attached",
                "unless it is just starting, restart it: it runs with other keys"};
    const int objects = now.object_count();
    return {objects == 0 ? "no daemon runs and none of the shared objects exists"
                         : "no daemon runs; " + std::to_string(objects) +
                               " shared objects are there without it",
            "start it: " + start_command() + "; if it runs as another user, look as root"};
}

// What the next start finds and nobody has attached.
void judge_rest(const agent_snapshot& now, problem_list& problems) {
    std::string unused;
    const auto look_at = [&unused](const object_state& one) {
        if (one.exists() && one.attaches == 0)
            unused += " " + std::string(one.object->keyword);
    };
    for (const object_state& segment : now.segments)
        look_at(segment);
    for (const semaphore_set& set : now.semaphores)
        look_at(set.object);
    if (!unused.empty())
        problems.push_back(
            {"stale: left by a daemon that has ended:" + unused,
             "the next start takes them over with their content; kessctl clean removes them",
             false});
}

} // namespace

bool has_started(const agent_snapshot& now) {
    const daemon_state& daemon = now.daemon;
    if (!daemon.attachments_known)
        return daemon.running && now.uptime_sec() >= START_SEC;
    const auto last =
        std::find_if(now.segments.begin(), now.segments.end(), [](const object_state& segment) {
            return segment.object == &agt::AGENT_SEGMENT;
        });
    return daemon.running && last != now.segments.end() &&
           std::any_of(daemon.attached.begin(), daemon.attached.end(),
                       [key = object_key(last->key)](const attached_segment& one) {
                           return one.key == static_cast<unsigned>(key);
                       });
}

std::vector<std::string> agent_diagnosis::reasons() const {
    std::vector<std::string> texts;
    for (const problem& one : problems)
        if (one.degrades)
            texts.push_back(one.what);
    return texts;
}

agent_diagnosis diagnose(const agent_snapshot& now, double full_percent) {
    if (!now.cfg_fault.empty())
        return {agent_health::absent, {{now.cfg_fault, "run kessctl check-config"}}};
    problem_list problems;
    if (!now.daemon.running)
        problems.push_back(absence(now));
    else
        judge_state(now, problems);
    judge_daemon(now, problems);
    judge_certificate(now, problems);
    for (const object_state& segment : now.segments)
        judge_segment(now, segment, problems);
    for (const semaphore_set& set : now.semaphores)
        judge_semaphores(now, set, problems);
    judge_settings(now, problems);
    judge_registry(now, problems);
    judge_fills(now, full_percent, problems);
    if (!now.daemon.running)
        judge_rest(now, problems);
    agent_diagnosis found{agent_health::ok, std::move(problems)};
    if (!now.daemon.running)
        found.health = agent_health::absent;
    else if (!found.reasons().empty())
        found.health = agent_health::degraded;
    return found;
}

const char* health_name(agent_health health) {
    constexpr const char* names[] = {"ok", "degraded", "absent"};
    return names[static_cast<int>(health)];
}

} // namespace kessctl
