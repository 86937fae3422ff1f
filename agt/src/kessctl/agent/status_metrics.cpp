// A snapshot in the text exposition format of Prometheus, version 0.0.4.
//
// Labels hold little that changes: traced processes are told by name, not by pid, so that a restart
// of an application starts no new series.
#include <algorithm>
#include <map>

#include "agent/exposition.h"
#include "agent/state_metrics.h"
#include "agent/status_report.h"
#include "log_flags.h"

namespace kessctl {
namespace {

void daemon_metrics(std::string& out, const agent_snapshot& now) {
    single(out, "kessard_command_port_listening", "gauge",
           "Whether somebody listens on the command port.", now.daemon.listening);
    if (now.daemon.pid > 0)
        single(out, "kessard_start_time_seconds", "gauge",
               "Start time of the daemon since the epoch.", now.daemon.started);
    if (now.certificate && now.certificate->fault.empty())
        single(out, "kessard_certificate_valid_days", "gauge",
               "Days for which the agent's certificate is valid, negative once it has expired.",
               now.certificate->days(now.taken));
}

void settings_metrics(std::string& out, const agent_snapshot& now) {
    if (!now.settings)
        return;
    const TRAN_LOGF_QUE_INFO& set = *now.settings;
    single(out, "kessard_tracing_enabled", "gauge", "Whether tracing is on.",
           set.magic_code == TRACE_ON_MAGIC_CODE);
    single(out, "kessard_service_filter_enabled", "gauge", "Whether the service filter is on.",
           set.svc_filtering != 0);
    metric_family types(out, "kessard_log_type_enabled", "gauge", "Whether a log type is written.");
    for (unsigned bit = 0; bit < 8; ++bit)
        types.sample({{"type", agt::letters_of_flags(static_cast<unsigned char>(1U << bit))}},
                     (set.log_flag_set >> bit & 1U) != 0);
    single(out, "kessard_log_queues", "gauge", "Number of log queues.", set.qcnt);
    single(out, "kessard_call_trace_depth", "gauge", "Call-trace depth.", set.call_trc_depth);
    metric_family limits(out, "kessard_trace_limit", "gauge", "Limit of a kind of trace.");
    limits.sample({{"kind", "call"}}, set.call_trc_limit);
    limits.sample({{"kind", "dbio"}}, set.dbio_trc_limit);
    limits.sample({{"kind", "sql"}}, set.sql_trc_limit);
    metric_family discards(out, "kessard_log_queue_discarded_messages_total", "counter",
                           "Messages that found no place in a log queue.");
    for (int i = 0; i < std::clamp(set.qcnt, 0, int{LOG_QUE_MAX}); ++i)
        discards.sample({{"queue", std::to_string(i)}}, set.discard_qmsgs[i]);
}

using fill_rows = std::vector<fill_level>;

fill_rows sound(fill_rows fills) {
    std::erase_if(fills, [](const fill_level& fill) { return !fill.known || !fill.fault.empty(); });
    return fills;
}

fill_rows known(fill_rows fills) {
    std::erase_if(fills, [](const fill_level& fill) { return !fill.known; });
    return fills;
}

void fill_metrics(std::string& out, const agent_snapshot& now) {
    const fill_rows tables = sound(now.tables());
    const fill_rows queues = sound(now.queues);
    const auto is_sound = [](const fill_level& fill) { return fill.fault.empty(); };
    const auto table = [](const fill_level& fill) {
        return std::vector<label>{{"table", fill.id}};
    };
    const auto queue = [](const fill_level& fill) {
        return std::vector<label>{{"queue", fill.id}};
    };
    const auto used = [](const fill_level& fill) { return fill.used; };
    const auto slots = [](const fill_level& fill) { return fill.slots; };
    family(out, "kessard_table_sound", "gauge",
           "Whether the counts and indexes of a shared table are in range.", known(now.tables()),
           table, is_sound);
    family(out, "kessard_queue_sound", "gauge",
           "Whether the indexes of a shared queue are in range.", known(now.queues), queue,
           is_sound);
    family(out, "kessard_table_entries", "gauge", "Entries in a shared table.", tables, table,
           used);
    family(out, "kessard_table_capacity_entries", "gauge", "Entries that a shared table can hold.",
           tables, table, slots);
    family(out, "kessard_queue_records", "gauge", "Records waiting in a shared queue.", queues,
           queue, used);
    family(out, "kessard_queue_capacity_records", "gauge", "Records that a shared queue can hold.",
           queues, queue, slots);
}

void process_metrics(std::string& out, const agent_snapshot& now) {
    const auto labels = [](const process_row& process) {
        return std::vector<label>{{"row", std::to_string(process.row)},
                                  {"program", process.program}};
    };
    family(out, "kessard_process_as_wanted", "gauge",
           "Whether a process of the registry is alive and in its wanted state.", now.processes,
           labels, [](const process_row& process) { return process.as_wanted(); });
    family(out, "kessard_process_restarts", "gauge",
           "Restarts of a process within the period that counts.", now.processes, labels,
           [](const process_row& process) { return process.restarts; });
    family(out, "kessard_process_start_time_seconds", "gauge",
           "Start time of a process since the epoch.", now.processes, labels,
           [](const process_row& process) { return process.started; });
}

void trace_metrics(std::string& out, const agent_snapshot& now) {
    std::map<std::pair<std::string, std::string>, int> entries; // by name and state
    std::map<std::string, traced_process> by_name;
    for (const traced_process& process : now.traced) {
        by_name[process.name].threads += process.threads;
        by_name[process.name].dead += process.dead;
        for (const auto& [state, count] : process.states)
            entries[{process.name, state}] += count;
    }
    family(
        out, "kessard_trace_entries", "gauge", "Entries of the trace table.", entries,
        [](const auto& row) {
            return std::vector<label>{{"program", row.first.first}, {"state", row.first.second}};
        },
        [](const auto& row) { return row.second; });
    const auto program = [](const auto& row) { return std::vector<label>{{"program", row.first}}; };
    family(out, "kessard_trace_threads", "gauge", "Entries of threads in the trace table.", by_name,
           program, [](const auto& row) { return row.second.threads; });
    family(out, "kessard_trace_dead_entries", "gauge",
           "Entries of the trace table that the sweep found dead.", by_name, program,
           [](const auto& row) { return row.second.dead; });
}

void traffic_metrics(std::string& out, const agent_snapshot& now) {
    using number = double (*)(const queue_traffic&);
    const struct {
        const char* name;
        const char* type;
        const char* help;
        number value;
    } families[] = {
        {"kessard_log_queue_in_messages_total", "counter", "Messages put into a log queue.",
         [](const queue_traffic& one) { return static_cast<double>(one.in); }},
        {"kessard_log_queue_in_discarded_messages_total", "counter",
         "Messages dropped before a log queue.",
         [](const queue_traffic& one) { return static_cast<double>(one.in_discarded); }},
        {"kessard_log_queue_out_messages_total", "counter", "Messages taken out of a log queue.",
         [](const queue_traffic& one) { return static_cast<double>(one.out); }},
        {"kessard_log_queue_out_discarded_messages_total", "counter",
         "Messages dropped behind a log queue.",
         [](const queue_traffic& one) { return static_cast<double>(one.out_discarded); }},
        {"kessard_log_queue_messages", "gauge", "Messages waiting in a log queue.",
         [](const queue_traffic& one) { return static_cast<double>(one.now); }},
        {"kessard_log_queue_hash_table_used_ratio", "gauge",
         "Fill level of a log queue's hash table, 0 to 1.",
         [](const queue_traffic& one) { return one.hash_table_percent / 100; }},
    };
    for (const auto& one : families)
        family(
            out, one.name, one.type, one.help, queues_in_use(now),
            [](std::size_t i) {
                return std::vector<label>{{"queue", std::to_string(i)}};
            },
            [&](std::size_t i) { return one.value(now.que_stat[i]); });
}

std::vector<label> object_label(const object_state& state) {
    return {{"object", state.object->keyword}};
}

void segment_metrics(std::string& out, const agent_snapshot& now) {
    family(out, "kessard_shared_memory_usable", "gauge",
           "Whether a segment is there and large enough.", now.segments, object_label,
           [](const object_state& state) { return state.usable(); });
    family(out, "kessard_shared_memory_bytes", "gauge", "Size of a segment; 0 when there is none.",
           now.segments, object_label, [](const object_state& state) { return state.size; });
    family(out, "kessard_shared_memory_attaches", "gauge", "Attachments of a segment.",
           now.segments, object_label, [](const object_state& state) { return state.attaches; });
}

struct numbered_semaphore {
    std::vector<label> labels;
    semaphore_state state;
};

void semaphore_metrics(std::string& out, const agent_snapshot& now) {
    std::vector<numbered_semaphore> all;
    for (const semaphore_set& set : now.semaphores)
        for (std::size_t i = 0; i < set.semaphores.size(); ++i)
            all.push_back({{{"object", set.object.object->keyword}, {"index", std::to_string(i)}},
                           set.semaphores[i]});
    const auto labels = [](const numbered_semaphore& one) { return one.labels; };
    family(out, "kessard_semaphore_value", "gauge", "Value of a semaphore: 1 free, 0 held.", all,
           labels, [](const numbered_semaphore& one) { return one.state.value; });
    family(out, "kessard_semaphore_waiters", "gauge", "Processes that wait for a semaphore.", all,
           labels, [](const numbered_semaphore& one) { return one.state.waiting; });
    family(out, "kessard_semaphore_held_by_dead", "gauge",
           "Whether the holder of a semaphore has ended.", all, labels,
           [](const numbered_semaphore& one) { return one.state.held() && !one.state.alive; });
}

} // namespace

std::string status_metrics(const agent_snapshot& now, const agent_diagnosis& found) {
    std::string out;
    single(out, "kessard_up", "gauge", "Whether the daemon runs.", now.daemon.running);
    single(out, "kessard_config_readable", "gauge", "Whether the configuration could be read.",
           now.cfg_fault.empty());
    single(out, "kessard_problems", "gauge",
           "Number of things that are wrong; kessctl status lists them.", found.reasons().size());
    if (now.object_count() == 0 && !now.daemon.running)
        return out;
    daemon_metrics(out, now);
    state_metrics(out, now);
    settings_metrics(out, now);
    fill_metrics(out, now);
    process_metrics(out, now);
    trace_metrics(out, now);
    traffic_metrics(out, now);
    segment_metrics(out, now);
    semaphore_metrics(out, now);
    return out;
}

} // namespace kessctl
