// A snapshot for programs.
#include "agent/status_json.h"

#include <nlohmann/json.hpp>

#include "agent/state_json.h"
#include "agent/status_report.h"
#include "log_flags.h"
#include "wire/text.h"

namespace kessctl {
namespace {

using json = nlohmann::ordered_json;

json text_or_null(const std::string& text) {
    return text.empty() ? json() : json(text);
}

json daemon_json(const agent_snapshot& now) {
    const daemon_state& daemon = now.daemon;
    return {{"running", daemon.running},
            {"pid", daemon.pid > 0 ? json(daemon.pid) : json()},
            {"started", daemon.pid > 0 ? json(daemon.started) : json()},
            {"uptime_sec", daemon.pid > 0 ? json(now.uptime_sec()) : json()},
            {"address", daemon.address},
            {"port", daemon.port},
            {"listening", daemon.listening},
            {"strangers", daemon.strangers}};
}

json certificate_json(const agent_snapshot& now) {
    if (!now.certificate)
        return {};
    const certificate_state& own = *now.certificate;
    const bool known = own.fault.empty();
    return {{"file", printable(own.file)},
            {"expires", known ? json(own.expires) : json()},
            {"days", known ? json(own.days(now.taken)) : json()},
            {"fault", text_or_null(printable(own.fault))}};
}

// What is not 0, by its index.
template <class T, std::size_t N> json non_zero(const T (&values)[N]) {
    json found = json::object();
    for (std::size_t i = 0; i < N; ++i)
        if (values[i] != 0)
            found[std::to_string(i)] = static_cast<long>(values[i]);
    return found;
}

json settings_json(const agent_snapshot& now) {
    if (!now.settings)
        return {};
    const TRAN_LOGF_QUE_INFO& set = *now.settings;
    return {{"tracing", set.magic_code == TRACE_ON_MAGIC_CODE},
            {"magic_code", set.magic_code},
            {"log_flags", agt::letters_of_flags(set.log_flag_set)},
            {"qcnt", set.qcnt},
            {"qcnt_mask", set.qcnt_mask},
            {"svc_filtering", static_cast<signed char>(set.svc_filtering)},
            {"call_trc_depth", set.call_trc_depth},
            {"call_trc_limit", set.call_trc_limit},
            {"dbio_trc_limit", set.dbio_trc_limit},
            {"sql_trc_limit", set.sql_trc_limit},
            {"save_apilog", shown({set.save_apilog_yn})},
            {"save_relllog", shown({set.save_relllog_yn})},
            {"fst_err_rc_set", non_zero(set.fst_err_rc_set)},
            {"discard_qmsgs", non_zero(set.discard_qmsgs)}};
}

json fill_json(const fill_level& fill) {
    if (!fill.known)
        return json::object({{"known", false}});
    return {{"known", true},
            {"used", fill.used},
            {"slots", fill.slots},
            {"percent", fill.percent()},
            {"fault", text_or_null(fill.fault)}};
}

json process_json(const process_row& process) {
    return {{"row", process.row},
            {"program", process.program},
            {"command", process.command},
            {"pid", process.pid},
            {"state", process.state},
            {"wanted", process.wanted},
            {"as_wanted", process.as_wanted()},
            {"alive", process.alive},
            {"restarts", process.restarts},
            {"restarts_allowed", process.restarts_allowed},
            {"restart_period_sec", process.restart_period_sec},
            {"started", process.started}};
}

json traces_json(const agent_snapshot& now) {
    const traced_process totals = trace_totals(now);
    json processes = json::array();
    for (const traced_process& process : now.traced) {
        const long long idle = idle_sec(now, process);
        processes.push_back({{"name", process.name},
                             {"pid", process.pid},
                             {"threads", process.threads},
                             {"dead", process.dead},
                             {"idle_sec", idle < 0 ? json() : json(idle)},
                             {"states", json(process.states)}});
    }
    return {{"threads", totals.threads},
            {"dead", totals.dead},
            {"states", json(totals.states)},
            {"processes", processes}};
}

json traffic_json(const agent_snapshot& now) {
    json queues = json::array();
    for (const std::size_t i : queues_in_use(now)) {
        const queue_traffic& one = now.que_stat[i];
        queues.push_back({{"queue", i},
                          {"in", one.in},
                          {"in_discarded", one.in_discarded},
                          {"out", one.out},
                          {"out_discarded", one.out_discarded},
                          {"waiting", one.now},
                          {"hash_table_percent", one.hash_table_percent}});
    }
    return queues;
}

json object_json(const object_state& state) {
    return {{"name", state.object->name},
            {"key", state.key},
            {"id", state.exists() ? json(state.id) : json()},
            {"fault", text_or_null(state.fault)}};
}

json segments_json(const agent_snapshot& now) {
    json segments = json::object();
    for (const object_state& segment : now.segments) {
        json one = object_json(segment);
        one["size_bytes"] = segment.size;
        one["attaches"] = segment.attaches;
        segments[segment.object->keyword] = one;
    }
    return segments;
}

json semaphores_json(const agent_snapshot& now) {
    json sets = json::object();
    for (const semaphore_set& set : now.semaphores) {
        json one = object_json(set.object);
        one["semaphores"] = json::array();
        for (const semaphore_state& state : set.semaphores)
            one["semaphores"].push_back({{"value", state.value},
                                         {"held", state.held()},
                                         {"pid", state.pid},
                                         {"process", text_or_null(state.process)},
                                         {"alive", state.alive},
                                         {"waiting", state.waiting}});
        sets[set.object.object->keyword] = one;
    }
    return sets;
}

} // namespace

nlohmann::ordered_json service_json(const service_row& service) {
    return {{"service_id", service.service_id},
            {"host_name", service.host_name},
            {"server_id", service.server_id},
            {"slot", service.slot},
            {"limit_sec", service.limit_sec},
            {"call_trc_depth", service.call_trc_depth},
            {"call_trc_limit", service.call_trc_limit},
            {"dbio_trc_limit", service.dbio_trc_limit},
            {"sql_trc_limit", service.sql_trc_limit},
            {"flags", service.flags},
            {"tflag", service.tflag}};
}

std::string status_json(const agent_snapshot& now, const agent_diagnosis& found,
                        const report_options& wanted) {
    json out = {{"status", health_name(found.health)},
                {"reasons", found.reasons()},
                {"time", now.taken},
                {"config", printable(now.cfg_file)}};
    if (now.cfg_fault.empty()) {
        out["daemon"] = daemon_json(now);
        add_state(out, now);
        out["certificate"] = certificate_json(now);
        out["host"] = now.host;
        out["settings"] = settings_json(now);
        for (const fill_level& table : now.tables())
            out["tables"][table.id] = fill_json(table);
        for (const fill_level& queue : now.queues)
            out["queues"][queue.id] = fill_json(queue);
        out["processes"] = json::array();
        for (const process_row& process : now.processes)
            out["processes"].push_back(process_json(process));
        out["traces"] = traces_json(now);
        out["log_queues"] = traffic_json(now);
        out["segments"] = segments_json(now);
        out["semaphores"] = semaphores_json(now);
    }
    if (wanted.services) {
        out["services"] = json::array();
        for (const service_row& service : select_services(now, wanted))
            out["services"].push_back(service_json(service));
    }
    return out.dump(2, ' ', true, json::error_handler_t::replace) + "\n";
}

} // namespace kessctl
