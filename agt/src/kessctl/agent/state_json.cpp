// The daemon's own figures for programs. Times are seconds since the epoch.
#include "agent/state_json.h"

#include <nlohmann/json.hpp>

#include "agent/daemon_health.h"
#include "wire/frame.h"
#include "wire/text.h"

namespace kessctl {
namespace {

using json = nlohmann::ordered_json;

json time_json(const state_view& state, std::int64_t when_ms) {
    return when_ms > 0 ? json(static_cast<std::int64_t>(state.epoch_sec(when_ms))) : json();
}

json server_json(const agent_snapshot& now) {
    const KESSARD_STATE& values = now.state.values;
    const bool failing = values.server_failing > 0;
    return {{"address", now.server},
            {"answering", !server_overdue(now.state)},
            {"last_tried", time_json(now.state, values.server_tried_ms)},
            {"last_answered", time_json(now.state, values.server_answered_ms)},
            {"answers", values.server_answers},
            {"failures", values.server_failures},
            {"failures_in_a_row", values.server_failing},
            {"error", failing ? json(server_error_text(values.server_error)) : json()},
            {"device_info_sent", values.device_info_sent != 0}};
}

json link_json(const state_view& state) {
    const KESSARD_STATE& values = state.values;
    return {{"wanted", values.link_wanted != 0},
            {"up", values.link_up != 0},
            {"since", time_json(state, values.link_since_ms)},
            {"reconnections", values.link_reconnections},
            {"notifications_sent", values.notifications_sent},
            {"notifications_dropped", values.notifications_dropped}};
}

json wait_json(const state_view& state, const STATE_THREAD& thread) {
    const agt::shared_object* object = waited_for(thread);
    if (object == nullptr)
        return {};
    return {{"object", object->keyword},
            {"index", thread.waits_number},
            {"since", time_json(state, thread.waits_since_ms)}};
}

json threads_json(const state_view& state) {
    json threads = json::object();
    for (std::size_t place = 0; place < STATE_THREADS; ++place) {
        const STATE_THREAD& thread = state.values.threads[place];
        threads[thread_id(place)] = {{"log_name", shown(thread.name)},
                                     {"running", thread.running != 0},
                                     {"stalled", thread_stalled(state, place)},
                                     {"last_pass", time_json(state, thread.last_pass_ms)},
                                     {"rhythm_ms", thread.rhythm_ms},
                                     {"waits_for", wait_json(state, thread)}};
    }
    return threads;
}

json transfer_json(const state_view& state, const STATE_TRANSFER& transfer) {
    return {{"begun", transfer.begun},
            {"failed", transfer.failed},
            {"last_success", time_json(state, transfer.good_ms)},
            {"services", transfer.elements},
            {"took_ms", transfer.took_ms}};
}

json work_json(const KESSARD_STATE& values) {
    json commands = json::object();
    for (int type = 0; type < STATE_COMMANDS; ++type)
        if (values.commands[type] > 0) {
            json& count = commands[message_name(static_cast<char>(type))];
            count = (count.is_null() ? 0 : count.get<std::int64_t>()) + values.commands[type];
        }
    json refused = json::object();
    for (std::size_t i = 0; i < std::size(REFUSALS); ++i)
        refused[REFUSALS[i]] = values.connections_refused[i];
    return {{"commands", commands},
            {"connections", {{"accepted", values.connections_accepted}, {"refused", refused}}},
            {"remote_commands",
             {{"run", values.remote_commands},
              {"failed", values.remote_commands_failed},
              {"timed_out", values.remote_commands_timed_out},
              {"refused", values.remote_commands_refused}}},
            {"files",
             {{"received", values.files_received},
              {"sent", values.files_sent},
              {"bytes_received", values.file_bytes_received},
              {"bytes_sent", values.file_bytes_sent},
              {"failed", values.file_failures}}},
            {"sweep",
             {{"sweeps", values.sweeps},
              {"took_us", values.sweep_us},
              {"entries", values.sweep_entries},
              {"dead", values.sweep_dead}}},
            {"watchdog",
             {{"passes", values.watchdog_passes},
              {"events", values.watchdog_events},
              {"events_lost", values.watchdog_events_lost}}},
            {"log_lines_lost", values.log_lines_lost},
            {"audit_lines_lost", values.audit_lines_lost}};
}

} // namespace

void add_state(json& out, const agent_snapshot& now) {
    const state_view& state = now.state;
    const bool known = state.known();
    out["state_file"] = json();
    if (!state.path.empty())
        out["state_file"] = {{"path", printable(state.path)},
                             {"fault", known ? json() : json(state.fault)},
                             {"release", known ? json(shown(state.values.release)) : json()}};
    out["server"] = known ? server_json(now) : json::object({{"address", now.server}});
    out["link"] = known ? link_json(state) : json();
    out["threads"] = known ? threads_json(state) : json();
    out["retrieval"] = known ? transfer_json(state, state.values.retrieval) : json();
    out["upload"] = known ? transfer_json(state, state.values.upload) : json();
    out["work"] = known ? work_json(state.values) : json();
}

} // namespace kessctl
