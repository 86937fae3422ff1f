// The daemon's own figures for Prometheus. What has not happened yet has no time and no sample.
#include "agent/state_metrics.h"

#include <map>

#include "agent/daemon_health.h"
#include "agent/exposition.h"
#include "wire/frame.h"
#include "wire/text.h"

namespace kessctl {
namespace {

using number = std::int64_t;

struct figure {
    const char* name;
    const char* help;
    number value;
};

void counters(std::string& out, std::initializer_list<figure> figures) {
    for (const figure& one : figures)
        single(out, one.name, "counter", one.help, one.value);
}

void gauges(std::string& out, std::initializer_list<figure> figures) {
    for (const figure& one : figures)
        single(out, one.name, "gauge", one.help, one.value);
}

// Times of the file; those of 0 have not come.
void times(std::string& out, const state_view& state, std::initializer_list<figure> figures) {
    for (const figure& one : figures)
        if (one.value > 0)
            single(out, one.name, "gauge", one.help, state.epoch_sec(one.value));
}

double seconds(number ms) {
    return static_cast<double>(ms) / 1000;
}

void server_metrics(std::string& out, const state_view& state) {
    const KESSARD_STATE& now = state.values;
    times(out, state,
          {{"kessard_server_last_attempt_timestamp_seconds", "Time of the last health check.",
            now.server_tried_ms},
           {"kessard_server_last_answer_timestamp_seconds", "Time of the server's last answer.",
            now.server_answered_ms}});
    counters(out, {{"kessard_server_answers_total", "Health checks that the server answered.",
                    now.server_answers},
                   {"kessard_server_failures_total", "Health checks that failed.",
                    now.server_failures}});
    gauges(out, {{"kessard_server_answering", "Whether the server's last answer is recent enough.",
                  !server_overdue(state)},
                 {"kessard_server_consecutive_failures",
                  "Health checks that failed since the last answer.", now.server_failing},
                 {"kessard_device_information_sent", "Whether the device information was sent.",
                  now.device_info_sent}});
    if (now.server_failing > 0)
        metric_family(out, "kessard_server_error_info", "gauge",
                      "Why the last health check failed.")
            .sample({{"error", server_error_text(now.server_error)}}, 1);
}

void link_metrics(std::string& out, const state_view& state) {
    const KESSARD_STATE& now = state.values;
    gauges(out, {{"kessard_notify_link_wanted", "Whether ACTIVE_LIMIT switches the notify link on.",
                  now.link_wanted},
                 {"kessard_notify_link_up", "Whether the notify link is up.", now.link_up}});
    times(out, state,
          {{"kessard_notify_link_changed_timestamp_seconds",
            "Time at which the notify link went up or down.", now.link_since_ms}});
    counters(out, {{"kessard_notify_link_reconnections_total",
                    "Times that the notify link was brought back.", now.link_reconnections},
                   {"kessard_notifications_sent_total", "Notifications sent to the server.",
                    now.notifications_sent},
                   {"kessard_notifications_dropped_total",
                    "Notifications dropped because the link was down or failed.",
                    now.notifications_dropped}});
}

struct thread_row {
    std::size_t place;
    STATE_THREAD thread;
};

void thread_metrics(std::string& out, const state_view& state) {
    std::vector<thread_row> all;
    for (std::size_t place = 0; place < STATE_THREADS; ++place)
        all.push_back({place, state.values.threads[place]});
    std::vector<thread_row> running = all;
    std::erase_if(running, [](const thread_row& one) { return one.thread.running == 0; });
    std::vector<thread_row> waiting = running;
    std::erase_if(waiting, [](const thread_row& one) { return waited_for(one.thread) == nullptr; });
    const auto name = [](const thread_row& one) {
        return std::vector<label>{{"thread", thread_id(one.place)}};
    };
    family(out, "kessard_thread_running", "gauge", "Whether a thread of the daemon is there.", all,
           name, [](const thread_row& one) { return one.thread.running; });
    family(out, "kessard_thread_last_pass_timestamp_seconds", "gauge",
           "Time at which a thread's last pass began.", running, name,
           [&](const thread_row& one) { return state.epoch_sec(one.thread.last_pass_ms); });
    family(out, "kessard_thread_rhythm_seconds", "gauge",
           "Longest time between two passes of a thread when all is well.", running, name,
           [](const thread_row& one) { return seconds(one.thread.rhythm_ms); });
    family(out, "kessard_thread_stalled", "gauge", "Whether a thread has not passed for too long.",
           all, name, [&](const thread_row& one) { return thread_stalled(state, one.place); });
    family(
        out, "kessard_thread_waiting_seconds", "gauge",
        "How long a thread has waited for a semaphore.", waiting,
        [&](const thread_row& one) {
            return std::vector<label>{
                {"thread", thread_id(one.place)},
                {"semaphore", waited_for(one.thread)->keyword +
                                  ("[" + std::to_string(one.thread.waits_number)) + "]"}};
        },
        [&](const thread_row& one) { return seconds(state.age_ms(one.thread.waits_since_ms)); });
}

void transfer_metrics(std::string& out, const state_view& state) {
    const STATE_TRANSFER& list = state.values.retrieval;
    const STATE_TRANSFER& upload = state.values.upload;
    counters(
        out,
        {{"kessard_retrievals_total", "Retrievals of the service list that began.", list.begun},
         {"kessard_retrieval_failures_total", "Retrievals that failed.", list.failed},
         {"kessard_uploads_total", "Uploads of the host's services that began.", upload.begun},
         {"kessard_upload_failures_total", "Uploads that failed.", upload.failed}});
    times(out, state,
          {{"kessard_retrieval_last_success_timestamp_seconds",
            "Time at which the last good retrieval ended.", list.good_ms},
           {"kessard_upload_last_success_timestamp_seconds",
            "Time at which the last good upload ended.", upload.good_ms}});
    gauges(out,
           {{"kessard_retrieval_services", "Services of the last good retrieval.", list.elements},
            {"kessard_upload_services", "Services of the last good upload.", upload.elements},
            {"kessard_service_filter_suspended",
             "Whether a retrieval has switched the service filter off for its time.",
             state.values.filter_switched_off != STATE_FILTER_NONE}});
    single(out, "kessard_retrieval_duration_seconds", "gauge",
           "Time that the last good retrieval took.", seconds(list.took_ms));
    single(out, "kessard_upload_duration_seconds", "gauge", "Time that the last good upload took.",
           seconds(upload.took_ms));
}

// Those that the server sends always, others once they came.
std::map<std::string, number> commands_by_name(const KESSARD_STATE& now) {
    std::map<std::string, number> counted;
    for (const char type : {MSG_SET_SYS_CONFIG_SET_REQ, MSG_SET_SYS_RESOURCE_SET_REQ,
                            MSG_RENEW_SERVICE_LIST_REQ, MSG_SET_MODIFIED_SERVICE_REQ, MSG_EXT_REQ})
        counted[message_name(type)] = 0;
    for (int type = 0; type < STATE_COMMANDS; ++type)
        if (now.commands[type] > 0)
            counted[message_name(static_cast<char>(type))] += now.commands[type];
    return counted;
}

void command_metrics(std::string& out, const KESSARD_STATE& now) {
    family(
        out, "kessard_commands_total", "counter", "Commands taken on the command port.",
        commands_by_name(now),
        [](const auto& one) {
            return std::vector<label>{{"command", one.first}};
        },
        [](const auto& one) { return one.second; });
    metric_family refused(out, "kessard_connections_refused_total", "counter",
                          "Connections to the command port that were refused.");
    for (std::size_t i = 0; i < std::size(REFUSALS); ++i)
        refused.sample({{"reason", REFUSALS[i]}}, now.connections_refused[i]);
    counters(
        out,
        {{"kessard_connections_accepted_total", "Connections to the command port taken.",
          now.connections_accepted},
         {"kessard_remote_commands_total", "Remote commands run.", now.remote_commands},
         {"kessard_remote_commands_failed_total",
          "Remote commands that ended with another status than 0 or could not begin.",
          now.remote_commands_failed},
         {"kessard_remote_commands_timed_out_total", "Remote commands ended by their limit.",
          now.remote_commands_timed_out},
         {"kessard_remote_commands_refused_total",
          "Remote commands and file transfers refused by REMOTE_COMMANDS_YN.",
          now.remote_commands_refused},
         {"kessard_files_received_total", "Files received whole.", now.files_received},
         {"kessard_files_sent_total", "Files sent whole.", now.files_sent},
         {"kessard_file_received_bytes_total", "Bytes of files received.", now.file_bytes_received},
         {"kessard_file_sent_bytes_total", "Bytes of files sent.", now.file_bytes_sent},
         {"kessard_file_failures_total", "File transfers that failed.", now.file_failures}});
}

void housekeeping_metrics(std::string& out, const KESSARD_STATE& now) {
    counters(
        out,
        {{"kessard_sweeps_total", "Sweeps of the trace table.", now.sweeps},
         {"kessard_watchdog_passes_total", "Passes of the worker watchdog.", now.watchdog_passes},
         {"kessard_watchdog_events_total", "Events that the watchdog queued.", now.watchdog_events},
         {"kessard_watchdog_events_lost_total", "Events that found no place in their queue.",
          now.watchdog_events_lost},
         {"kessard_log_lines_lost_total", "Log lines that could not be written.",
          now.log_lines_lost},
         {"kessard_audit_lines_lost_total", "Audit lines that the system log did not take.",
          now.audit_lines_lost}});
    gauges(out,
           {{"kessard_sweep_entries", "Entries that the last sweep looked at.", now.sweep_entries},
            {"kessard_sweep_dead_entries", "Entries that the last sweep found dead.",
             now.sweep_dead}});
    single(out, "kessard_sweep_duration_seconds", "gauge", "Time that the last sweep took.",
           static_cast<double>(now.sweep_us) / 1e6);
    if (now.certificate_end_sec > 0)
        single(out, "kessard_certificate_expiry_timestamp_seconds", "gauge",
               "End of the certificate that the daemon uses.", now.certificate_end_sec);
}

} // namespace

void state_metrics(std::string& out, const agent_snapshot& now) {
    if (now.state.path.empty() || !now.daemon.running)
        return;
    single(out, "kessard_state_file_usable", "gauge",
           "Whether the daemon's state file is there and sound.", now.state.known());
    if (!now.state.known())
        return;
    metric_family(out, "kessard_build_info", "gauge", "Version of the daemon.")
        .sample({{"version", shown(now.state.values.release)}}, 1);
    server_metrics(out, now.state);
    link_metrics(out, now.state);
    thread_metrics(out, now.state);
    transfer_metrics(out, now.state);
    command_metrics(out, now.state.values);
    housekeeping_metrics(out, now.state.values);
}

} // namespace kessctl
