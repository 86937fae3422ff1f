// Whether what the daemon has to do goes on.
#include "agent/daemon_health.h"

#include <algorithm>
#include <cerrno>

#include "agent/report_text.h"
#include "host/process.h"
#include "wire/text.h"

namespace kessctl {
namespace {

constexpr int START_SEC = 10; // the file is made

bool older(const state_view& state, std::int64_t when_ms, std::int64_t limit_sec) {
    return state.age_ms(when_ms) > limit_sec * 1000;
}

std::string moment(const agent_snapshot& now, std::int64_t when_ms) {
    return since_text(static_cast<time_t>(now.state.epoch_sec(when_ms)), now.taken);
}

const char* server_advice(std::int64_t error) {
    switch (error) {
    case 0:
        return "the health check does not run as it should: look at the threads and at the log";
    case ECONNREFUSED:
        return "start the server, or correct TRAN_SERVER CMD_PORT and restart the daemon";
    case STATE_SERVER_NO_ANSWER:
    case STATE_SERVER_CLOSED:
        return "look at the server: it is reached and does not answer as it should";
    case STATE_SERVER_TLS:
        return "compare certificates and names of both sides; the daemon's log has the reason";
    case STATE_SERVER_NAME:
        return "correct TRAN_SERVER IP_ADDRESS, or look at the host's name service";
    default:
        return "look at the way to the server: its host, routes, firewalls";
    }
}

void judge_server(const agent_snapshot& now, problem_list& problems) {
    if (server_overdue(now.state))
        problems.push_back({server_text(now), server_advice(now.state.values.server_error)});
}

void judge_link(const agent_snapshot& now, problem_list& problems) {
    if (link_missed(now.state))
        problems.push_back({link_text(now),
                            "notifications are dropped until it is back: look whether the server "
                            "takes a second connection; the daemon tries every second"});
}

void judge_thread(const agent_snapshot& now, std::size_t place, problem_list& problems) {
    const STATE_THREAD& thread = now.state.values.threads[place];
    const std::string name = "thread " + std::string(thread_name(place));
    const std::string wait = wait_text(now, thread);
    if (thread_stalled(now.state, place))
        problems.push_back({name + " has not passed for " +
                                duration(now.state.age_ms(thread.last_pass_ms) / 1000) +
                                (wait.empty() ? "" : ": it waits for " + wait),
                            wait.empty()
                                ? "look whether a debugger holds it, or where it stands: gdb -p " +
                                      std::to_string(now.daemon.pid) +
                                      "; restart the daemon if it does not go on"
                                : "look what the holder does; if it hangs, end it"});
}

// What is lost stays so: a matter for doctor.
void judge_losses(const agent_snapshot& now, problem_list& problems) {
    const KESSARD_STATE& values = now.state.values;
    const struct {
        std::int64_t count;
        const char* what;
        const char* advice;
    } losses[] = {{values.log_lines_lost, "log lines could not be written",
                   "make room where the log is, or give its directory to the daemon's user"},
                  {values.audit_lines_lost, "audit lines were not taken by the system log",
                   "look whether the system log runs and keeps up"},
                  {values.watchdog_events_lost,
                   "events of the watchdog found no place in their queue",
                   "look whether the log parser runs"},
                  {values.connections_refused[STATE_REFUSED_SHORTAGE],
                   "connections were refused for want of descriptors",
                   "raise the daemon's limit of open files"},
                  {values.retrieval.good_ms == 0 ? values.retrieval.failed : 0,
                   "retrievals of the service list failed and none succeeded",
                   "look at the server, then run kessctl renew"}};
    for (const auto& loss : losses)
        if (loss.count > 0)
            problems.push_back(
                {"since the daemon's start: " + std::to_string(loss.count) + " " + loss.what,
                 loss.advice, false});
}

void judge_file(const agent_snapshot& now, problem_list& problems) {
    const std::string what = "state file " + printable(now.state.path) + ": " + now.state.fault;
    if (now.state.unseen)
        problems.push_back({what,
                            "you may not look: set TRAN_AGT_HOME, run as the agent's user or "
                            "as root",
                            false});
    else if (now.uptime_sec() > START_SEC)
        problems.push_back({what, "restart the daemon, which makes it anew; when its log says that "
                                  "it cannot, give the directory to its user"});
}

} // namespace

bool server_overdue(const state_view& state) {
    const KESSARD_STATE& values = state.values;
    if (values.server_answered_ms > 0)
        return older(state, values.server_answered_ms, SERVER_LIMIT_SEC);
    return values.server_failing > 0 || older(state, values.started_ms, FIRST_ANSWER_SEC);
}

bool link_missed(const state_view& state) {
    const KESSARD_STATE& values = state.values;
    return values.link_wanted != 0 && values.link_up == 0 &&
           older(state, std::max(values.link_since_ms, values.started_ms), LINK_LIMIT_SEC);
}

bool thread_stalled(const state_view& state, std::size_t place) {
    const STATE_THREAD& thread = state.values.threads[place];
    const std::int64_t limit_sec = std::max<std::int64_t>(
        PASS_LIMIT_SEC, 2 * std::min<std::int64_t>(thread.rhythm_ms / 1000, INT32_MAX));
    return thread.running != 0 && older(state, thread.last_pass_ms, limit_sec);
}

std::string server_text(const agent_snapshot& now) {
    const KESSARD_STATE& values = now.state.values;
    if (!now.state.known())
        return "server: unknown (" +
               (now.state.path.empty() ? "no STATE_FILE" : "state file: " + now.state.fault) + ")";
    const std::string server = "server " + now.server + ": ";
    const std::string since = values.server_answered_ms > 0
                                  ? "since " + moment(now, values.server_answered_ms)
                                  : "since the start at " + moment(now, values.started_ms);
    if (values.server_failing > 0)
        return server + "no answer " + since + ", " +
               counted(values.server_failing, "try", "tries") + ", " +
               server_error_text(values.server_error);
    if (server_overdue(now.state))
        return server + "not asked " + since;
    return server +
           (values.server_answered_ms == 0
                ? "not asked yet"
                : "answered " + duration(now.state.age_ms(values.server_answered_ms) / 1000) +
                      " ago");
}

std::string link_text(const agent_snapshot& now) {
    const KESSARD_STATE& values = now.state.values;
    const std::string text = "notify link: ";
    if (values.link_wanted == 0)
        return text + "switched off by ACTIVE_LIMIT";
    return text + (values.link_up != 0 ? "up" : "down") + " since " +
           moment(now, std::max(values.link_since_ms, values.started_ms)) + ", " +
           std::to_string(values.notifications_sent) + " sent, " +
           std::to_string(values.notifications_dropped) + " dropped, " +
           counted(values.link_reconnections, "reconnection", "reconnections");
}

std::string wait_text(const agent_snapshot& now, const STATE_THREAD& thread) {
    const agt::shared_object* object = waited_for(thread);
    if (object == nullptr)
        return {};
    const auto number = static_cast<std::size_t>(thread.waits_number);
    const std::string text = semaphore_name(*object, number);
    for (const semaphore_set& set : now.semaphores)
        if (set.object.object == object && number < set.semaphores.size() &&
            set.semaphores[number].held())
            return text + ", held by " + process_text(set.semaphores[number].pid);
    return text;
}

void judge_state(const agent_snapshot& now, problem_list& problems) {
    if (now.state.path.empty())
        return;
    if (!now.state.known())
        return judge_file(now, problems);
    judge_server(now, problems);
    judge_link(now, problems);
    for (std::size_t place = 0; place < STATE_THREADS; ++place)
        judge_thread(now, place, problems);
    judge_losses(now, problems);
}

} // namespace kessctl
