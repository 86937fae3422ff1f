// What is wrong with an agent, by one look at it.
#include "agent/agent_verdict.h"

#include <algorithm>
#include <cstdio>

namespace kessctl {
namespace {

using reason_list = std::vector<std::string>;

constexpr int START_SEC = 10; // the last objects appear five seconds after the daemon starts

bool has_started(const agent_snapshot& now) {
    return now.daemon.running && now.uptime_sec() >= START_SEC;
}

bool is_missed(const agent_snapshot& now, const object_state& state) {
    return !state.object->watchdog_only || (now.watchdog_on && has_started(now));
}

void judge_object(const agent_snapshot& now, const object_state& state, reason_list& reasons) {
    if (!state.fault.empty() && (state.exists() || is_missed(now, state)))
        reasons.push_back(describe_fault(state));
}

void judge_daemon(const agent_snapshot& now, reason_list& reasons) {
    const daemon_state& daemon = now.daemon;
    if (!daemon.running)
        return;
    if (!daemon.listening)
        reasons.push_back("nobody listens on the command port " + daemon.address + ":" +
                          std::to_string(daemon.port));
    for (const object_state& segment : now.segments)
        if (daemon.attachments_known && has_started(now) && segment.exists() &&
            !segment.object->watchdog_only &&
            std::find(daemon.attached_ids.begin(), daemon.attached_ids.end(), segment.id) ==
                daemon.attached_ids.end())
            reasons.push_back(std::string(segment.object->keyword) + " " + segment.key +
                              ": the daemon works on another segment, which was removed");
}

void judge_semaphores(const semaphore_set& set, reason_list& reasons) {
    for (std::size_t i = 0; i < set.semaphores.size(); ++i) {
        const semaphore_state& one = set.semaphores[i];
        const std::string name =
            std::string(set.object.object->keyword) + "[" + std::to_string(i) + "]";
        if (one.held() && !one.alive)
            reasons.push_back(name + " is held by the dead process " + std::to_string(one.pid));
        if (one.value > 1)
            reasons.push_back(name + " has the value " + std::to_string(one.value) +
                              ": it locks nothing");
    }
}

void judge_registry(const agent_snapshot& now, reason_list& reasons) {
    if (!now.registry_fault.empty())
        reasons.push_back("the process registry is corrupt: " + now.registry_fault);
    for (const process_row& process : now.processes) {
        const std::string name =
            "process " + process.program + " (row " + std::to_string(process.row) + ")";
        if (process.dead())
            reasons.push_back(name + " is dead: there is no pid " + std::to_string(process.pid));
        else if (!process.as_wanted())
            reasons.push_back(name + " is in state " + std::to_string(process.state) +
                              ", wanted is " + std::to_string(process.wanted));
    }
}

void judge_fill(const fill_level& fill, double full_percent, reason_list& reasons) {
    char percent[32];
    std::snprintf(percent, sizeof percent, "%.1f", fill.percent());
    if (fill.known && !fill.fault.empty())
        reasons.push_back("the " + fill.name + " is corrupt: " + fill.fault);
    else if (fill.known && fill.percent() >= full_percent)
        reasons.push_back("the " + fill.name + " is " + percent + " % full");
}

void judge_fills(const agent_snapshot& now, double full_percent, reason_list& reasons) {
    constexpr double never = 1000;
    judge_fill(now.service_fill, full_percent, reasons);
    judge_fill(now.trace_fill, full_percent, reasons);
    judge_fill(now.cache_fill, never, reasons);
    for (const fill_level& queue : now.queues)
        judge_fill(queue, full_percent, reasons);
}

void judge_settings(const agent_snapshot& now, reason_list& reasons) {
    if (!now.settings || (now.settings->qcnt >= 1 && now.settings->qcnt <= LOG_QUE_MAX &&
                          now.settings->qcnt_mask == now.settings->qcnt - 1))
        return;
    reasons.push_back("the settings name " + std::to_string(now.settings->qcnt) +
                      " log queues with the mask " + std::to_string(now.settings->qcnt_mask));
}

std::string absence(const agent_snapshot& now) {
    const int objects = now.object_count();
    if (objects == 0)
        return "no daemon runs and none of the shared objects exists";
    return "no daemon runs; " + std::to_string(objects) + " shared objects are there without it";
}

} // namespace

agent_verdict judge(const agent_snapshot& now, double full_percent) {
    if (!now.cfg_fault.empty())
        return {agent_health::absent, {now.cfg_fault}};
    if (!now.daemon.running && now.object_count() == 0)
        return {agent_health::absent, {absence(now)}};
    reason_list reasons;
    if (!now.daemon.running)
        reasons.push_back(absence(now));
    judge_daemon(now, reasons);
    for (const object_state& segment : now.segments)
        judge_object(now, segment, reasons);
    for (const semaphore_set& set : now.semaphores) {
        judge_object(now, set.object, reasons);
        judge_semaphores(set, reasons);
    }
    judge_settings(now, reasons);
    judge_registry(now, reasons);
    judge_fills(now, full_percent, reasons);
    const agent_health health = !now.daemon.running ? agent_health::absent
                                : reasons.empty()   ? agent_health::ok
                                                    : agent_health::degraded;
    return {health, reasons};
}

const char* health_name(agent_health health) {
    constexpr const char* names[] = {"ok", "degraded", "absent"};
    return names[static_cast<int>(health)];
}

} // namespace kessctl
