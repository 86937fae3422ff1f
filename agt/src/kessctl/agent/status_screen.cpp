// The picture of `kessctl status --watch`.
#include "agent/status_screen.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "agent/daemon_health.h"
#include "agent/report_text.h"
#include "agent/status_report.h"

namespace kessctl {
namespace {

using screen_lines = std::vector<std::string>;

constexpr std::size_t ROOMY_LINES = 40; // threads and traces have a line each
constexpr std::size_t REASON_LINES = 3;
constexpr std::size_t MARGIN = 4;
constexpr std::size_t TRACES_SHOWN = 8;
constexpr std::size_t FIGURE_WIDTH = 53; // in front of a course

constexpr const char* PROCESS_ORDERS[] = {"row", "program", "state", "restarts"};
constexpr const char* SERVICE_ORDERS[] = {"id", "host", "limit", "slot"};

[[gnu::format(printf, 1, 2)]] std::string text(const char* format, ...) {
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    return line;
}

bool is_continuation(char c) {
    return (static_cast<unsigned char>(c) & 0xc0) == 0x80; // of a character in UTF-8
}

// A line cut to `columns`; colours, which take no column, stay whole.
std::string cut_line(const std::string& line, std::size_t columns) {
    std::string out;
    for (std::size_t at = 0, column = 0; at < line.size(); ++at) {
        const std::size_t colour_end = line[at] == '\x1b' ? line.find('m', at) : line.npos;
        if (colour_end != line.npos) {
            out.append(line, at, colour_end - at + 1);
            at = colour_end;
            continue;
        }
        column += is_continuation(line[at]) ? 0 : 1;
        if (column <= columns)
            out += line[at];
    }
    return out;
}

std::string bold(const std::string& line, const screen_view& view) {
    return view.report.colour ? "\x1b[1m" + line + "\x1b[0m" : line;
}

// One character a cell, the highest for `full`.
std::string course_text(const std::vector<double>& course, double full, const screen_view& view) {
    constexpr const char* BLOCKS[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    constexpr const char* LETTERS[] = {"_", ".", ":", "-", "=", "+", "*", "#"};
    std::string out;
    for (const double value : course) {
        const auto level = std::clamp(static_cast<int>(value / full * 8), 0, 7);
        out += value < 0 ? " " : (view.wide_glyphs ? BLOCKS : LETTERS)[level];
    }
    return out;
}

std::size_t course_cells(const screen_view& view) {
    return view.columns > FIGURE_WIDTH ? view.columns - FIGURE_WIDTH : 0;
}

std::string rate_line(const char* figure, std::int64_t total, const look_history& history,
                      const screen_view& view) {
    const std::optional<double> rate = history.last(figure);
    const std::vector<double> course = history.course(figure, course_cells(view));
    const double most = course.empty() ? 0 : *std::max_element(course.begin(), course.end());
    const std::string total_text = text("%lld in all", static_cast<long long>(total));
    return text("  %-20s%9s /s  %-16.16s ", figure, rate ? text("%.1f", *rate).c_str() : "-",
                total_text.c_str()) +
           course_text(course, std::max(most, 1.0), view);
}

std::string fill_line(const fill_level& fill, const look_history& history,
                      const screen_view& view) {
    if (!fill.known)
        return text("  %-20s not there", fill.name.c_str());
    if (!fill.fault.empty())
        return text("  %-20s corrupt: %s", fill.name.c_str(), fill.fault.c_str());
    return text("  %-20s%9lu of %7lu  %5.1f %%  ", fill.name.c_str(), fill.used, fill.slots,
                fill.percent()) +
           course_text(history.course(fill.id, course_cells(view)), 100, view);
}

void add_figures(screen_lines& out, const agent_snapshot& now, const look_history& history,
                 const screen_view& view) {
    const double span_sec = history.cell_sec() * static_cast<double>(course_cells(view));
    const std::string span =
        course_cells(view) > 12 ? "last " + duration(static_cast<long long>(span_sec)) : "";
    out.push_back(bold(text("%-*s%s", int{FIGURE_WIDTH}, "Figures", span.c_str()), view));
    if (now.state.known()) {
        out.push_back(rate_line("commands", commands_in_all(now.state.values), history, view));
        out.push_back(
            rate_line("notifications", now.state.values.notifications_sent, history, view));
    }
    for (const fill_level& table : now.tables())
        out.push_back(fill_line(table, history, view));
    for (std::size_t i = 0; i < now.queues.size(); ++i)
        if (i < 2 || now.queues[i].used > 0 || !now.queues[i].fault.empty())
            out.push_back(fill_line(now.queues[i], history, view));
}

std::string who(const agent_snapshot& now, std::vector<std::string>& reasons) {
    if (!now.daemon.running) {
        const std::string absence = reasons.front();
        reasons.erase(reasons.begin());
        return absence;
    }
    const std::string host = now.host.empty() ? "" : " on " + now.host;
    const std::string pid = now.daemon.pid > 0 ? text(" pid %d, up %s", now.daemon.pid,
                                                      duration(now.uptime_sec()).c_str())
                                               : "";
    return "kessard" + host + pid;
}

void add_reasons(screen_lines& out, const std::vector<std::string>& reasons,
                 const std::string& mark, const screen_view& view) {
    const std::size_t most = out.size() + (view.lines < ROOMY_LINES ? 1 : 3) * REASON_LINES;
    for (std::size_t i = 0; i < reasons.size(); ++i) {
        if (out.size() >= most)
            return out.push_back(
                text("  ... %zu more (kessctl doctor lists all)", reasons.size() - i));
        std::string before = "  " + mark + " ";
        for (const std::string& line : wrap(reasons[i], std::max(view.columns, MARGIN) - MARGIN)) {
            out.push_back(before + line);
            before = "    ";
        }
    }
}

void add_verdict(screen_lines& out, const agent_snapshot& now, const agent_diagnosis& found,
                 const screen_view& view) {
    constexpr const char* COLOURS[] = {"\x1b[1;32m", "\x1b[1;33m", "\x1b[1;31m"};
    const std::string before = view.report.colour ? COLOURS[static_cast<int>(found.health)] : "";
    const std::string behind = view.report.colour ? "\x1b[0m" : "";
    std::vector<std::string> reasons = found.reasons();
    out.push_back(before + health_name(found.health) + behind + ": " + who(now, reasons));
    add_reasons(out, reasons, before + "!" + behind, view);
}

std::string thread_line(const agent_snapshot& now, std::size_t place) {
    const STATE_THREAD& thread = now.state.values.threads[place];
    const std::string wait = wait_text(now, thread);
    return text("    %-18s passed %s ago", thread_name(place),
                duration(now.state.age_ms(thread.last_pass_ms) / 1000).c_str()) +
           (wait.empty() ? "" : ", waits for " + wait);
}

void add_threads(screen_lines& out, const agent_snapshot& now, const screen_view& view) {
    std::size_t running = 0;
    std::size_t standing = 0;
    std::string names;
    screen_lines rows;
    for (std::size_t place = 0; place < STATE_THREADS; ++place) {
        if (now.state.values.threads[place].running == 0)
            continue;
        ++running;
        rows.push_back(thread_line(now, place));
        if (thread_stalled(now.state, place))
            names += std::string(standing++ == 0 ? "; not: " : ", ") + thread_name(place);
    }
    out.push_back(text("  threads: %zu of %zu pass", running - standing, running) + names);
    if (view.lines >= ROOMY_LINES)
        out.insert(out.end(), rows.begin(), rows.end());
}

// What stands among the reasons is not said again.
void add_daemon(screen_lines& out, const agent_snapshot& now, const screen_view& view) {
    if (!now.daemon.running)
        return;
    if (!now.state.known() || !server_overdue(now.state))
        out.push_back("  " + server_text(now));
    if (!now.state.known())
        return;
    if (!link_missed(now.state))
        out.push_back("  " + link_text(now));
    add_threads(out, now, view);
}

void add_traces(screen_lines& out, const agent_snapshot& now, const screen_view& view) {
    if (view.lines < ROOMY_LINES || now.traced.empty())
        return;
    out.emplace_back();
    out.push_back(bold("Traced: " + trace_summary(now), view));
    for (std::size_t i = 0; i < std::min(now.traced.size(), TRACES_SHOWN); ++i) {
        const traced_process& one = now.traced[i];
        const long long idle = idle_sec(now, one);
        out.push_back(text("  %8s  %-20s  %6d threads  %6d dead  idle %s", one.pid.c_str(),
                           one.name.c_str(), one.threads, one.dead,
                           idle < 0 ? "-" : duration(idle).c_str()));
    }
    if (now.traced.size() > TRACES_SHOWN)
        out.push_back(text("  ... %zu more", now.traced.size() - TRACES_SHOWN));
}

screen_lines service_rows(const agent_snapshot& now, const report_options& report) {
    screen_lines rows = {
        text("  %-16s  %-16s  %-15s  %7s  %s", "service", "host", "server", "limit/s", "flags")};
    for (const service_row& one : select_services(now, report))
        rows.push_back(text("  %-16s  %-16s  %-15s  %7d  %s", one.service_id.c_str(),
                            one.host_name.c_str(), one.server_id.c_str(), one.limit_sec,
                            one.flags.c_str()));
    return rows;
}

screen_lines process_rows(const agent_snapshot& now, const report_options& report) {
    screen_lines rows = {text("  %3s  %-16s %8s  %5s  %6s  %8s  %s", "row", "program", "pid",
                              "state", "wanted", "restarts", "started")};
    for (const process_row& one : select_processes(now, report))
        rows.push_back(text("%s %3d  %-16.16s %8d  %5d  %6d  %4d/%-3d  %s",
                            one.as_wanted() ? " " : "!", one.row, one.program.c_str(), one.pid,
                            one.state, one.wanted, one.restarts, one.restarts_allowed,
                            clock_text(one.started).c_str()));
    return rows;
}

// In the lines up to the last but one.
void add_list(screen_lines& out, const agent_snapshot& now, const screen_view& view) {
    const report_options& report = view.report;
    const screen_lines rows =
        report.services ? service_rows(now, report) : process_rows(now, report);
    const auto good = std::count_if(now.processes.begin(), now.processes.end(),
                                    [](const process_row& one) { return one.as_wanted(); });
    out.emplace_back();
    out.push_back(bold(text("Workers: %td of %zu as wanted    Services: %zu    %s by %s", good,
                            now.processes.size(), now.services.size(),
                            report.services ? "services" : "workers", report.sort.c_str()) +
                           (report.filter.empty() ? "" : ", only '" + report.filter + "'"),
                       view));
    const std::size_t room = view.lines - std::min(view.lines, out.size() + 1);
    const std::size_t shown =
        rows.size() <= room ? rows.size() : room - std::min<std::size_t>(room, 1);
    out.insert(out.end(), rows.begin(), rows.begin() + static_cast<std::ptrdiff_t>(shown));
    if (shown < rows.size() && room > 0)
        out.push_back(text("  ... %zu more", rows.size() - std::max<std::size_t>(shown, 1)));
}

std::string key_line(const agent_snapshot& now, const screen_view& view) {
    if (view.typing)
        return "filter: " + view.report.filter + "_   (Enter: keep, Esc: none)";
    const std::string time = clock_text(now.taken);
    return text("q quit  p %s  s sort  f filter  l %s    %s, every %g s%s",
                view.paused ? "go on" : "pause", view.report.services ? "workers" : "services",
                time.substr(time.find(' ') + 1).c_str(), view.interval_sec,
                view.paused ? ", PAUSED" : "");
}

} // namespace

std::vector<std::string> draw_screen(const agent_snapshot& now, const agent_diagnosis& found,
                                     const look_history& history, const screen_view& view) {
    screen_lines out;
    add_verdict(out, now, found, view);
    add_daemon(out, now, view);
    if (now.object_count() > 0) {
        out.emplace_back();
        add_figures(out, now, history, view);
        add_traces(out, now, view);
        add_list(out, now, view);
    }
    out.resize(view.lines - std::min<std::size_t>(view.lines, 1));
    out.push_back(key_line(now, view));
    for (std::string& line : out)
        line = cut_line(line, view.columns);
    return out;
}

std::string next_order(const report_options& report) {
    const auto& orders = report.services ? SERVICE_ORDERS : PROCESS_ORDERS;
    const auto* const now = std::find(std::begin(orders), std::end(orders), report.sort);
    return now == std::end(orders) || now + 1 == std::end(orders) ? orders[0] : now[1];
}

} // namespace kessctl
