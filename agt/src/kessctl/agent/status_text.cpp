// A snapshot for people: what is wrong first, then the server and what the daemon does, then one
// short section per kind of object. A screen of 80 by 24 holds it, unless all is asked for.
#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "agent/daemon_health.h"
#include "agent/report_text.h"
#include "agent/status_report.h"
#include "log_flags.h"
#include "wire/text.h"

namespace kessctl {
namespace {

constexpr std::size_t COLUMNS = 80;
constexpr long LINES = 23; // the prompt takes one
constexpr std::size_t REASONS_SHOWN = 6;
constexpr std::size_t BAR_CELLS = 20;

[[gnu::format(printf, 2, 3)]] void add(std::string& out, const char* format, ...) {
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    out += line;
}

std::string coloured(const std::string& text, const char* code, bool colour) {
    return colour ? std::string("\x1b[") + code + "m" + text + "\x1b[0m" : text;
}

// Adds a text behind a mark of two columns, in lines that fit the screen, broken at blanks.
void add_wrapped(std::string& out, const std::string& mark, const std::string& text) {
    std::string before = "  " + mark;
    for (const std::string& line : wrap(text, COLUMNS - 4)) {
        out += before + line + "\n";
        before = "    ";
    }
}

long lines_of(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

// "a 10, h 2".
std::string counts(const std::map<std::string, int>& states) {
    std::string text;
    for (const auto& [state, count] : states)
        text += (text.empty() ? "" : ", ") + state + " " + std::to_string(count);
    return text;
}

void add_reasons(std::string& out, const std::vector<std::string>& reasons, const char* code,
                 const report_options& wanted) {
    const std::size_t listed =
        wanted.all ? reasons.size() : std::min(reasons.size(), REASONS_SHOWN);
    for (std::size_t i = 0; i < listed; ++i)
        add_wrapped(out, coloured("!", code, wanted.colour) + " ", reasons[i]);
    if (listed < reasons.size())
        add(out, "  ... %zu more (kessctl doctor lists all)\n", reasons.size() - listed);
}

void add_headline(std::string& out, const agent_snapshot& now, const agent_diagnosis& found,
                  const report_options& wanted) {
    const char* const colours[] = {"32", "33", "31"};
    const char* code = colours[static_cast<int>(found.health)];
    std::vector<std::string> reasons = found.reasons();
    out += coloured(health_name(found.health), code, wanted.colour) + ": ";
    const daemon_state& daemon = now.daemon;
    if (daemon.running) {
        out += "kessard";
        if (daemon.pid > 0)
            add(out, " pid %d, up %s", daemon.pid, duration(now.uptime_sec()).c_str());
        add(out, ", command port %s:%d\n", daemon.address.c_str(), daemon.port);
    } else {
        out += reasons.front() + "\n";
        reasons.erase(reasons.begin());
    }
    add_reasons(out, reasons, code, wanted);
}

void add_certificate(std::string& out, const agent_snapshot& now) {
    if (!now.certificate)
        return;
    if (now.certificate->fault.empty())
        add(out, "  TLS certificate valid for %ld days, until %s\n",
            now.certificate->days(now.taken), clock_text(now.certificate->expires).c_str());
    else
        add_wrapped(out, "", "TLS certificate cannot be read: " + now.certificate->fault);
}

// "threads: 6 of 7 pass", and each of them when all is wanted.
void add_threads(std::string& out, const agent_snapshot& now, bool all) {
    const auto& threads = now.state.values.threads;
    const auto running = std::count_if(std::begin(threads), std::end(threads),
                                       [](const STATE_THREAD& one) { return one.running != 0; });
    auto passing = running;
    std::string rows;
    for (std::size_t place = 0; place < STATE_THREADS; ++place) {
        const STATE_THREAD& thread = threads[place];
        const std::string wait = wait_text(now, thread);
        passing -= thread_stalled(now.state, place);
        if (thread.running != 0)
            add_wrapped(rows, "  ",
                        std::string(thread_name(place)) + ": passed " +
                            duration(now.state.age_ms(thread.last_pass_ms) / 1000) + " ago" +
                            (wait.empty() ? "" : ", waits for " + wait));
    }
    add(out, "  threads: %td of %td pass\n", passing, running);
    if (all)
        out += rows;
}

std::string transfer_text(const state_view& state, const STATE_TRANSFER& transfer,
                          const char* done) {
    std::string text;
    if (transfer.good_ms > 0)
        add(text, "%lld services %s %s ago in %.1f s", static_cast<long long>(transfer.elements),
            done, duration(state.age_ms(transfer.good_ms) / 1000).c_str(),
            static_cast<double>(transfer.took_ms) / 1000);
    else
        add(text, "none %s", done);
    if (transfer.failed > 0)
        add(text, "; %lld of %lld failed", static_cast<long long>(transfer.failed),
            static_cast<long long>(transfer.begun));
    return text;
}

// What the daemon has done since its start.
void add_work(std::string& out, const agent_snapshot& now) {
    const KESSARD_STATE& values = now.state.values;
    const auto sum = [](const auto& counted) {
        std::int64_t all = 0;
        for (const std::int64_t one : counted)
            all += one;
        return std::to_string(all);
    };
    add_wrapped(out, "", "upload: " + transfer_text(now.state, values.upload, "sent"));
    add_wrapped(out, "",
                "commands: " + sum(values.commands) + " on " +
                    std::to_string(values.connections_accepted) + " connections; " +
                    sum(values.connections_refused) + " connections refused");
    add_wrapped(out, "",
                "remote commands: " + std::to_string(values.remote_commands) + ", " +
                    std::to_string(values.remote_commands_failed) + " failed, " +
                    std::to_string(values.remote_commands_timed_out) + " timed out, " +
                    std::to_string(values.remote_commands_refused) + " refused");
    add_wrapped(out, "",
                "files: " + std::to_string(values.files_received) + " received, " +
                    std::to_string(values.files_sent) + " sent, " +
                    std::to_string(values.file_failures) + " failed");
    add_wrapped(out, "",
                "sweep: " + std::to_string(values.sweep_entries) + " entries, " +
                    std::to_string(values.sweep_dead) +
                    " dead; watchdog: " + std::to_string(values.watchdog_passes) + " passes, " +
                    std::to_string(values.watchdog_events) + " events, " +
                    std::to_string(values.watchdog_events_lost) + " lost");
}

// What stands among the reasons is not said again.
void add_daemon(std::string& out, const agent_snapshot& now, const report_options& wanted) {
    if (!now.daemon.running)
        return;
    if (!now.state.known())
        return add_wrapped(out, "", server_text(now));
    if (!server_overdue(now.state))
        add_wrapped(out, "", server_text(now));
    if (!link_missed(now.state))
        add_wrapped(out, "", link_text(now));
    add_wrapped(out, "",
                "service list: " + transfer_text(now.state, now.state.values.retrieval, "loaded"));
    add_threads(out, now, wanted.all);
    if (wanted.all)
        add_work(out, now);
}

// A switch kept as a digit; "-" when it was never set.
std::string digit(char kept) {
    return kept == '\0' ? "-" : printable({&kept, 1});
}

std::string settings_section(const agent_snapshot& now) {
    std::string out;
    if (!now.settings)
        return out;
    const TRAN_LOGF_QUE_INFO& set = *now.settings;
    const std::string letters = agt::letters_of_flags(set.log_flag_set);
    add(out, "Settings\n  tracing %s, log types %s, %d log queues, service filter %s\n",
        set.magic_code == TRACE_ON_MAGIC_CODE ? "on" : "off",
        letters.empty() ? "none" : letters.c_str(), set.qcnt,
        set.svc_filtering == 0 ? "off" : "on");
    const auto error_codes =
        std::count_if(std::begin(set.fst_err_rc_set), std::end(set.fst_err_rc_set),
                      [](char value) { return value != 0; });
    std::string limits;
    add(limits, "call depth %d; limits: call %ld, dbio %ld, sql %ld; api log %s, rell log %s",
        set.call_trc_depth, set.call_trc_limit, set.dbio_trc_limit, set.sql_trc_limit,
        digit(set.save_apilog_yn).c_str(), digit(set.save_relllog_yn).c_str());
    if (error_codes > 0)
        add(limits, "; %td return codes with an error setting", error_codes);
    add_wrapped(out, "", limits);
    return out;
}

void add_fill(std::string& out, const fill_level& fill) {
    add(out, "  %-20s", fill.name.c_str());
    if (!fill.known)
        add(out, "  not there\n");
    else if (!fill.fault.empty())
        add(out, "  corrupt\n");
    else
        add(out, "%9lu of %7lu  %5.1f %%  [%-*s]\n", fill.used, fill.slots, fill.percent(),
            int{BAR_CELLS},
            std::string(static_cast<std::size_t>(std::lround(fill.percent() / 100 * BAR_CELLS)),
                        '#')
                .c_str());
}

std::string fill_section(const agent_snapshot& now) {
    std::string out = "Fill\n";
    for (const fill_level& table : now.tables())
        add_fill(out, table);
    for (std::size_t i = 0; i < now.queues.size(); ++i)
        if (i < 2 || now.queues[i].used > 0 ||
            !now.queues[i].fault.empty()) // the daemon works on the first two
            add_fill(out, now.queues[i]);
    return out;
}

std::string process_section(const agent_snapshot& now, bool all) {
    std::string out;
    if (now.processes.empty())
        return out;
    const auto good = std::count_if(now.processes.begin(), now.processes.end(),
                                    [](const process_row& process) { return process.as_wanted(); });
    add(out, "Processes: %td of %zu in their wanted state\n", good, now.processes.size());
    if (all)
        add(out, "  row  %-16s %8s  state  wanted  restarts  %s\n", "program", "pid", "started");
    for (const process_row& process : now.processes)
        if (all)
            add(out, "  %3d  %-16s %8d  %5d  %6d  %4d/%-3d  %s%s\n", process.row,
                process.program.c_str(), process.pid, process.state, process.wanted,
                process.restarts, process.restarts_allowed, clock_text(process.started).c_str(),
                process.dead() ? "  dead" : "");
    return out;
}

std::string trace_section(const agent_snapshot& now, const report_options& wanted) {
    std::string out;
    if (now.traced.empty())
        return out;
    add(out, "Traces: %s; by state: %s\n", trace_summary(now).c_str(),
        counts(trace_totals(now).states).c_str());
    if (!wanted.all && !wanted.all_traces)
        return out;
    add(out, "  %8s  %-16s  threads   dead        idle  states\n", "pid", "process");
    for (const traced_process& process : now.traced) {
        const long long idle = idle_sec(now, process);
        add(out, "  %8s  %-16s  %7d  %5d  %10s  %s\n", process.pid.c_str(), process.name.c_str(),
            process.threads, process.dead, idle < 0 ? "-" : duration(idle).c_str(),
            counts(process.states).c_str());
    }
    return out;
}

std::string service_section(const agent_snapshot& now, const report_options& wanted) {
    std::string out;
    if (!wanted.services || !now.service_fill.known)
        return out;
    const std::vector<service_row> chosen = select_services(now, wanted);
    add(out, "Services: %zu of %zu\n", chosen.size(), now.services.size());
    add(out, "  %-16s  %-16s  %-15s  %7s  %-8s\n", "service", "host", "server", "limit/s", "flags");
    for (const service_row& service : chosen)
        add(out, "  %-16s  %-16s  %-15s  %7d  %-8s\n", service.service_id.c_str(),
            service.host_name.c_str(), service.server_id.c_str(), service.limit_sec,
            service.flags.c_str());
    return out;
}

std::string log_queue_section(const agent_snapshot& now, bool all) {
    const std::vector<std::size_t> queues = queues_in_use(now);
    queue_traffic sum;
    std::string rows;
    for (const std::size_t i : queues) {
        const queue_traffic& one = now.que_stat[i];
        sum.in += one.in;
        sum.out += one.out;
        sum.in_discarded += one.in_discarded;
        sum.out_discarded += one.out_discarded;
        sum.now += one.now;
        add(rows, "  %5zu  %10u  %10u  %10u  %10u  %7u  %8.1f %%\n", i, one.in, one.in_discarded,
            one.out, one.out_discarded, one.now, one.hash_table_percent);
    }
    std::string out;
    if ((sum.in | sum.in_discarded | sum.out | sum.out_discarded | sum.now) == 0)
        return out;
    add(out, "Log queues: in %u, %u discarded; out %u, %u discarded; %u waiting\n", sum.in,
        sum.in_discarded, sum.out, sum.out_discarded, sum.now);
    if (all)
        add(out, "  %5s  %10s  %10s  %10s  %10s  %7s  %10s\n", "queue", "in", "discarded", "out",
            "discarded", "waiting", "hash table");
    return out + (all ? rows : "");
}

// "1234 (kessctl) holds SVC_HASH_TBL_SEMKEY[0] (service table), 2 wait for it", a line each.
std::string held_semaphores(const agent_snapshot& now) {
    std::string out;
    for (const semaphore_set& set : now.semaphores)
        for (std::size_t i = 0; i < set.semaphores.size(); ++i) {
            const semaphore_state& one = set.semaphores[i];
            if (one.held())
                add_wrapped(out, "",
                            std::to_string(one.pid) +
                                (one.alive ? " (" + one.process + ")" : ", which is dead,") +
                                " holds " + semaphore_name(*set.object.object, i) +
                                (one.waiting > 0 ? ", " + std::to_string(one.waiting) +
                                                       (one.waiting == 1 ? " waits" : " wait")
                                                 : ""));
        }
    return out;
}

std::string object_rows(const agent_snapshot& now) {
    std::string out;
    add(out, "  %-20s  %10s  %10s  %10s  %8s\n", "segment", "key", "id", "size", "attached");
    for (const object_state& segment : now.segments)
        if (segment.exists())
            add(out, "  %-20s  %10s  %10d  %10s  %8lu\n", segment.object->name, segment.key.c_str(),
                segment.id, size_text(segment.size).c_str(), segment.attaches);
        else
            add(out, "  %-20s  %10s  %10s  %10s  %8s\n", segment.object->name, segment.key.c_str(),
                "missing", "-", "-");
    return out;
}

std::string object_section(const agent_snapshot& now, bool all) {
    const auto there = std::count_if(now.segments.begin(), now.segments.end(),
                                     [](const object_state& one) { return one.exists(); });
    std::size_t semaphores = 0;
    for (const semaphore_set& set : now.semaphores)
        semaphores += set.semaphores.size();
    const std::string held = held_semaphores(now);
    std::string out;
    add(out, "Objects: %td of %zu segments, %zu semaphores, %s\n", there, now.segments.size(),
        semaphores, held.empty() ? "all free" : "not all free");
    return out + held + (all ? object_rows(now) : "");
}

} // namespace

std::string status_text(const agent_snapshot& now, const agent_diagnosis& found,
                        const report_options& wanted) {
    std::string out;
    add_headline(out, now, found, wanted);
    add_daemon(out, now, wanted);
    add_certificate(out, now);
    if (now.object_count() == 0)
        return out;
    const bool cut = !wanted.all && !wanted.services && !wanted.all_traces;
    long before = lines_of(out);
    for (const std::string& section :
         {settings_section(now), fill_section(now), process_section(now, wanted.all),
          log_queue_section(now, wanted.all), trace_section(now, wanted),
          object_section(now, wanted.all), service_section(now, wanted)}) {
        const long lines = lines_of(section);
        const bool apart = lines > 0 && std::max(lines, before) > 1;
        if (cut && lines_of(out) + lines + apart >= LINES)
            return out + "... kessctl status --all shows the rest\n";
        out += (apart ? "\n" : "") + section;
        before = lines > 0 ? lines : before;
    }
    return out;
}

} // namespace kessctl
