// A snapshot for people: what is wrong first, then one short section per kind of object.
#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "agent/status_report.h"
#include "log_flags.h"
#include "wire/text.h"

namespace kessctl {
namespace {

constexpr std::size_t BAR_CELLS = 20;
constexpr std::size_t TRACES_SHOWN = 10;

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

// "3 d 4 h", "12 min 5 s": the two largest units.
std::string duration(long long sec) {
    constexpr struct {
        long long sec;
        const char* name;
    } units[] = {{86400, "d"}, {3600, "h"}, {60, "min"}, {1, "s"}};
    for (std::size_t i = 0; i + 1 < std::size(units); ++i)
        if (sec >= units[i].sec)
            return std::to_string(sec / units[i].sec) + " " + units[i].name + " " +
                   std::to_string(sec % units[i].sec / units[i + 1].sec) + " " + units[i + 1].name;
    return std::to_string(sec) + " s";
}

std::string size_text(std::size_t bytes) {
    constexpr double kib = 1024;
    char text[48];
    const auto size = static_cast<double>(bytes);
    if (size < kib)
        std::snprintf(text, sizeof text, "%zu B", bytes);
    else if (size < kib * kib)
        std::snprintf(text, sizeof text, "%.1f KiB", size / kib);
    else
        std::snprintf(text, sizeof text, "%.1f MiB", size / kib / kib);
    return text;
}

std::string clock_text(time_t when) {
    char text[32];
    struct tm local {};
    if (when <= 0 || localtime_r(&when, &local) == nullptr ||
        std::strftime(text, sizeof text, "%F %T", &local) == 0)
        return "-";
    return text;
}

// "a 10, h 2".
std::string counts(const std::map<std::string, int>& states) {
    std::string text;
    for (const auto& [state, count] : states)
        text += (text.empty() ? "" : ", ") + state + " " + std::to_string(count);
    return text;
}

void add_headline(std::string& out, const agent_snapshot& now, const agent_diagnosis& found,
                  bool colour) {
    const char* const colours[] = {"32", "33", "31"};
    const char* code = colours[static_cast<int>(found.health)];
    const std::vector<std::string> reasons = found.reasons();
    out += coloured(health_name(found.health), code, colour) + ": ";
    const daemon_state& daemon = now.daemon;
    if (daemon.running) {
        out += "kessard";
        if (daemon.pid > 0)
            add(out, " pid %d, up %s", daemon.pid, duration(now.uptime_sec()).c_str());
        add(out, ", command port %s:%d\n", daemon.address.c_str(), daemon.port);
    } else {
        out += reasons.front() + "\n";
    }
    for (std::size_t i = daemon.running ? 0 : 1; i < reasons.size(); ++i)
        out += "  " + coloured("!", code, colour) + " " + reasons[i] + "\n";
}

void add_certificate(std::string& out, const agent_snapshot& now) {
    if (!now.certificate)
        return;
    if (now.certificate->fault.empty())
        add(out, "  TLS certificate valid for %ld days, until %s\n",
            now.certificate->days(now.taken), clock_text(now.certificate->expires).c_str());
    else
        add(out, "  TLS certificate cannot be read: %s\n", now.certificate->fault.c_str());
}

// A switch kept as a digit; "-" when it was never set.
std::string digit(char kept) {
    return kept == '\0' ? "-" : printable({&kept, 1});
}

void add_settings(std::string& out, const agent_snapshot& now) {
    if (!now.settings)
        return;
    const TRAN_LOGF_QUE_INFO& set = *now.settings;
    const std::string letters = agt::letters_of_flags(set.log_flag_set);
    add(out, "\nSettings\n  tracing %s, log types %s, %d log queues, service filter %s\n",
        set.magic_code == TRACE_ON_MAGIC_CODE ? "on" : "off",
        letters.empty() ? "none" : letters.c_str(), set.qcnt,
        set.svc_filtering == 0 ? "off" : "on");
    add(out, "  call depth %d; limits: call %ld, dbio %ld, sql %ld; api log %s, rell log %s\n",
        set.call_trc_depth, set.call_trc_limit, set.dbio_trc_limit, set.sql_trc_limit,
        digit(set.save_apilog_yn).c_str(), digit(set.save_relllog_yn).c_str());
    const auto error_codes =
        std::count_if(std::begin(set.fst_err_rc_set), std::end(set.fst_err_rc_set),
                      [](char value) { return value != 0; });
    if (error_codes > 0)
        add(out, "  %td return codes with an error setting\n", error_codes);
}

void add_fill(std::string& out, const fill_level& fill) {
    add(out, "  %-20s", fill.name.c_str());
    if (!fill.known)
        add(out, "  not there\n");
    else if (!fill.fault.empty())
        add(out, "  corrupt: %s\n", fill.fault.c_str());
    else
        add(out, "%9lu of %7lu  %5.1f %%  [%-*s]\n", fill.used, fill.slots, fill.percent(),
            int{BAR_CELLS},
            std::string(static_cast<std::size_t>(std::lround(fill.percent() / 100 * BAR_CELLS)),
                        '#')
                .c_str());
}

void add_fills(std::string& out, const agent_snapshot& now) {
    out += "\nFill\n";
    for (const fill_level& table : now.tables())
        add_fill(out, table);
    for (std::size_t i = 0; i < now.queues.size(); ++i)
        if (i < 2 || now.queues[i].used > 0 ||
            !now.queues[i].fault.empty()) // the daemon works on the first two
            add_fill(out, now.queues[i]);
}

void add_processes(std::string& out, const agent_snapshot& now) {
    if (now.processes.empty())
        return;
    const auto good = std::count_if(now.processes.begin(), now.processes.end(),
                                    [](const process_row& process) { return process.as_wanted(); });
    add(out, "\nProcesses: %td of %zu in their wanted state\n", good, now.processes.size());
    add(out, "  row  %-16s %8s  state  wanted  restarts  %s\n", "program", "pid", "started");
    for (const process_row& process : now.processes)
        add(out, "  %3d  %-16s %8d  %5d  %6d  %4d/%-3d  %s%s\n", process.row,
            process.program.c_str(), process.pid, process.state, process.wanted, process.restarts,
            process.restarts_allowed, clock_text(process.started).c_str(),
            process.dead() ? "  dead" : "");
}

void add_traces(std::string& out, const agent_snapshot& now, bool all) {
    if (now.traced.empty())
        return;
    const traced_process totals = trace_totals(now);
    add(out, "\nTraces: %zu processes, %d threads; %d entries dead; by state: %s\n",
        now.traced.size(), totals.threads, totals.dead, counts(totals.states).c_str());
    add(out, "  %8s  %-16s  threads   dead        idle  states\n", "pid", "process");
    const std::size_t shown_rows =
        all ? now.traced.size() : std::min(now.traced.size(), TRACES_SHOWN);
    for (std::size_t i = 0; i < shown_rows; ++i) {
        const traced_process& process = now.traced[i];
        const long long idle = idle_sec(now, process);
        add(out, "  %8s  %-16s  %7d  %5d  %10s  %s\n", process.pid.c_str(), process.name.c_str(),
            process.threads, process.dead, idle < 0 ? "-" : duration(idle).c_str(),
            counts(process.states).c_str());
    }
    if (shown_rows < now.traced.size())
        add(out, "  ... %zu more (--traces lists all)\n", now.traced.size() - shown_rows);
}

void add_services(std::string& out, const agent_snapshot& now, const report_options& wanted) {
    if (!wanted.services || !now.service_fill.known)
        return;
    const std::vector<service_row> chosen = select_services(now, wanted);
    add(out, "\nServices: %zu of %zu\n", chosen.size(), now.services.size());
    add(out, "  %-16s  %-16s  %-15s  %7s  %5s  %10s  %10s  %10s  %-8s  %s\n", "service", "host",
        "server", "limit/s", "depth", "call", "dbio", "sql", "flags", "tflag");
    for (const service_row& service : chosen)
        add(out, "  %-16s  %-16s  %-15s  %7d  %5d  %10ld  %10ld  %10ld  %-8s  %d\n",
            service.service_id.c_str(), service.host_name.c_str(), service.server_id.c_str(),
            service.limit_sec, service.call_trc_depth, service.call_trc_limit,
            service.dbio_trc_limit, service.sql_trc_limit, service.flags.c_str(), service.tflag);
}

void add_log_queues(std::string& out, const agent_snapshot& now) {
    const std::vector<std::size_t> queues = queues_in_use(now);
    const bool quiet = std::all_of(queues.begin(), queues.end(), [&](std::size_t i) {
        const queue_traffic& one = now.que_stat[i];
        return (one.in | one.in_discarded | one.out | one.out_discarded | one.now) == 0;
    });
    if (quiet)
        return;
    add(out, "\nLog queues\n  %5s  %10s  %10s  %10s  %10s  %7s  %10s\n", "queue", "in", "discarded",
        "out", "discarded", "waiting", "hash table");
    for (const std::size_t i : queues) {
        const queue_traffic& one = now.que_stat[i];
        add(out, "  %5zu  %10u  %10u  %10u  %10u  %7u  %8.1f %%\n", i, one.in, one.in_discarded,
            one.out, one.out_discarded, one.now, one.hash_table_percent);
    }
}

// "free", "7 free, 0 held by 1234 (kessctl), 2 waiting".
std::string semaphores_text(const semaphore_set& set) {
    if (set.semaphores.empty())
        return set.object.exists() ? "not readable" : "missing";
    std::string held;
    std::size_t free_count = 0;
    for (std::size_t i = 0; i < set.semaphores.size(); ++i) {
        const semaphore_state& one = set.semaphores[i];
        if (!one.held()) {
            ++free_count;
            continue;
        }
        held += ", " + (set.semaphores.size() > 1 ? std::to_string(i) + " " : std::string()) +
                "held by " + std::to_string(one.pid) +
                (one.alive ? " (" + one.process + ")" : ", which is dead");
        if (one.waiting > 0)
            held += ", " + std::to_string(one.waiting) + " waiting";
    }
    if (free_count == 0)
        return held.substr(2);
    return (set.semaphores.size() > 1 ? std::to_string(free_count) + " free" : "free") + held;
}

void add_objects(std::string& out, const agent_snapshot& now) {
    add(out, "\nObjects\n  %-20s  %10s  %10s  %10s  %8s  %s\n", "segment", "key", "id", "size",
        "attached", "semaphores");
    for (const object_state& segment : now.segments) {
        const auto set = std::find_if(
            now.semaphores.begin(), now.semaphores.end(), [&](const semaphore_set& one) {
                return std::string(one.object.object->name) == segment.object->name;
            });
        const std::string guard = set == now.semaphores.end() ? "none" : semaphores_text(*set);
        add(out, "  %-20s  %10s  ", segment.object->name, segment.key.c_str());
        if (segment.exists())
            add(out, "%10d  %10s  %8lu  %s\n", segment.id, size_text(segment.size).c_str(),
                segment.attaches, guard.c_str());
        else
            add(out, "%10s  %10s  %8s  %s\n", "missing", "-", "-", guard.c_str());
    }
}

} // namespace

std::string status_text(const agent_snapshot& now, const agent_diagnosis& found,
                        const report_options& wanted) {
    std::string out;
    add_headline(out, now, found, wanted.colour);
    add_certificate(out, now);
    if (now.object_count() == 0)
        return out;
    add_settings(out, now);
    add_fills(out, now);
    add_processes(out, now);
    add_log_queues(out, now);
    add_traces(out, now, wanted.all_traces);
    add_services(out, now, wanted);
    add_objects(out, now);
    return out;
}

} // namespace kessctl
