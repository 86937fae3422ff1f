// A snapshot as a page for people.
#include "agent/status_page.h"

#include <algorithm>
#include <cstdio>

#include "agent/daemon_health.h"
#include "agent/html.h"
#include "agent/page_style.h"
#include "agent/rate_chart.h"
#include "agent/report_text.h"
#include "agent/status_report.h"

namespace kessctl {
namespace {

std::string section(const char* heading, const std::string& content) {
    return content.empty() ? ""
                           : "<section>" + element("h2", "", heading) + content + "</section>\n";
}

std::string daemon_line(const agent_snapshot& now) {
    const daemon_state& daemon = now.daemon;
    if (!daemon.running)
        return "no daemon runs";
    std::string text = "kessard";
    if (now.state.known())
        text += std::string(" ") + now.state.values.release;
    if (daemon.pid > 0)
        text += ", pid " + std::to_string(daemon.pid) + ", up " + duration(now.uptime_sec());
    return text + ", command port " + daemon.address + ":" + std::to_string(daemon.port);
}

std::string verdict(const agent_snapshot& now, const agent_diagnosis& found) {
    const char* health = health_name(found.health);
    std::string out = "<header class=" + std::string(health) + ">" + element("h1", "", health) +
                      element("p", "host", now.host) + element("p", "", daemon_line(now)) +
                      "</header>\n";
    std::string problems;
    for (const problem& one : found.problems)
        problems += "<li" + std::string(one.degrades ? "" : " class=note") + ">" +
                    element("b", "", one.what) + "<br>" + element("span", "", one.advice);
    return problems.empty() ? out : out + "<ul class=problems>" + problems + "</ul>\n";
}

std::string fact(const std::string& text, bool good) {
    return element("li", good ? "good" : "bad", text);
}

std::string fact_list(const agent_snapshot& now) {
    std::string out;
    if (!now.daemon.running)
        return out;
    const state_view& state = now.state;
    if (!state.known())
        return "<ul class=facts>" + element("li", "", server_text(now)) + "</ul>";
    out += fact(server_text(now), !server_overdue(state));
    out += fact(link_text(now), !link_missed(state));
    const STATE_TRANSFER& list = state.values.retrieval;
    if (list.good_ms > 0)
        out += fact("service list: " + std::to_string(list.elements) + " services loaded " +
                        duration(state.age_ms(list.good_ms) / 1000) + " ago",
                    true);
    if (now.certificate)
        out += now.certificate->fault.empty()
                   ? fact("certificate: valid until " + clock_text(now.certificate->expires), true)
                   : fact("certificate: " + now.certificate->fault, false);
    return "<ul class=facts>" + out + "</ul>";
}

std::string fill_bar(const fill_level& fill) {
    constexpr double warn_percent = 75;
    constexpr double full_percent = 90;
    char percent[16];
    std::snprintf(percent, sizeof percent, "%.1f", fill.percent());
    const bool sound = fill.known && fill.fault.empty();
    const char* kind = fill.percent() >= full_percent   ? "full"
                       : fill.percent() >= warn_percent ? "high"
                                                        : "low";
    const std::string said = !fill.known ? "not there"
                             : sound     ? std::to_string(fill.used) + " of " +
                                           std::to_string(fill.slots) + ", " + percent + " %"
                                     : "corrupt: " + fill.fault;
    return "<li" + std::string(sound || !fill.known ? "" : " class=bad") + ">" +
           element("span", "", fill.name) + element("span", "figure", said) +
           "<div class=bar><i class=" + kind + " style=\"width:" + (sound ? percent : "0") +
           "%\"></i></div>";
}

std::string fill_bars(const agent_snapshot& now) {
    std::string out;
    for (const fill_level& table : now.tables())
        out += fill_bar(table);
    for (std::size_t i = 0; i < now.queues.size(); ++i)
        if (i < 2 || now.queues[i].used > 0 || !now.queues[i].fault.empty())
            out += fill_bar(now.queues[i]);
    return out.empty() ? out : "<ul class=fills>" + out + "</ul>";
}

std::string row(const char* kind, const std::vector<std::string>& cells) {
    std::string out = "<tr class=" + std::string(kind) + ">";
    for (const std::string& cell : cells)
        out += element("td", "", cell);
    return out;
}

std::string thread_table(const agent_snapshot& now) {
    std::string rows;
    for (std::size_t place = 0; now.state.known() && place < STATE_THREADS; ++place) {
        const STATE_THREAD& thread = now.state.values.threads[place];
        if (thread.running == 0)
            continue;
        const std::string wait = wait_text(now, thread);
        const bool stalled = thread_stalled(now.state, place);
        rows +=
            row(stalled ? "bad" : "good",
                {thread_name(place), (stalled ? "stands; passed " : "passed ") +
                                         duration(now.state.age_ms(thread.last_pass_ms) / 1000) +
                                         " ago" + (wait.empty() ? "" : ", waits for " + wait)});
    }
    return rows.empty() ? rows : "<table>" + rows + "</table>";
}

std::string worker_table(const agent_snapshot& now) {
    std::string rows;
    for (const process_row& process : now.processes)
        rows += row(
            process.as_wanted() ? "good" : "bad",
            {process.program, std::to_string(process.pid),
             process.dead()        ? "dead"
             : process.as_wanted() ? "as wanted"
                                   : "in state " + std::to_string(process.state) + ", wanted is " +
                                         std::to_string(process.wanted),
             std::to_string(process.restarts) + " of " + std::to_string(process.restarts_allowed),
             clock_text(process.started)});
    if (rows.empty())
        return rows;
    return "<table class=workers><tr><th>program<th>pid<th>state<th>restarts<th>started" + rows +
           "</table>";
}

std::string trace_line(const agent_snapshot& now) {
    return now.traced.empty() ? "" : element("p", "", trace_summary(now));
}

std::string charts(const agent_snapshot& now, const look_history& history) {
    if (!now.state.known())
        return {};
    return rate_chart(history, "notifications", "Notifications a second") +
           rate_chart(history, "commands", "Commands a second");
}

} // namespace

std::string status_page(const agent_snapshot& now, const agent_diagnosis& found,
                        const look_history& history) {
    const std::string title = std::string(health_name(found.health)) + ": kessard" +
                              (now.host.empty() ? "" : " on " + now.host);
    return "<!DOCTYPE html>\n<html lang=en><head><meta charset=utf-8>" +
           element("title", "", title) +
           "<meta name=viewport content=\"width=device-width,initial-scale=1\">"
           "<meta http-equiv=refresh content=10><link rel=icon href=\"data:,\"><style>" +
           PAGE_STYLE + "</style></head>\n<body><main>\n" + verdict(now, found) +
           "<div class=columns>\n" + section("Server and link", fact_list(now)) +
           section("The last hour", charts(now, history)) +
           section("Tables and queues", fill_bars(now)) + section("Threads", thread_table(now)) +
           section("Workers", worker_table(now)) + section("Traced", trace_line(now)) +
           "</div>\n<footer>" + element("span", "", clock_text(now.taken) + ", again every 10 s") +
           element("span", "", now.cfg_file) +
           "<span><a href=metrics>metrics</a> <a href=healthz>healthz</a></span></footer>\n"
           "</main></body></html>\n";
}

} // namespace kessctl
