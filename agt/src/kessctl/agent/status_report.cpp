// What the reports of a snapshot have in common: choosing and adding up.
#include "agent/status_report.h"

#include <strings.h>

#include <algorithm>
#include <tuple>

#include "agent/report_text.h"

namespace kessctl {
namespace {

bool contains(const std::string& text, const std::string& part) {
    const auto same = [](char a, char b) { return strncasecmp(&a, &b, 1) == 0; };
    return std::search(text.begin(), text.end(), part.begin(), part.end(), same) != text.end();
}

bool in_order(const service_row& a, const service_row& b, const std::string& key) {
    if (key == "limit" && a.limit_sec != b.limit_sec)
        return a.limit_sec > b.limit_sec;
    if (key == "host" && a.host_name != b.host_name)
        return a.host_name < b.host_name;
    if (key == "slot")
        return a.slot < b.slot;
    return std::tie(a.service_id, a.slot) < std::tie(b.service_id, b.slot);
}

bool in_order(const process_row& a, const process_row& b, const std::string& key) {
    if (key == "program" && a.program != b.program)
        return a.program < b.program;
    if (key == "state" && a.as_wanted() != b.as_wanted())
        return b.as_wanted();
    if (key == "restarts" && a.restarts != b.restarts)
        return a.restarts > b.restarts;
    return a.row < b.row;
}

} // namespace

std::vector<process_row> select_processes(const agent_snapshot& now, const report_options& wanted) {
    std::vector<process_row> chosen;
    for (const process_row& process : now.processes)
        if (contains(process.program, wanted.filter))
            chosen.push_back(process);
    std::sort(chosen.begin(), chosen.end(), [&](const process_row& a, const process_row& b) {
        return in_order(a, b, wanted.sort);
    });
    return chosen;
}

std::vector<service_row> select_services(const agent_snapshot& now, const report_options& wanted) {
    std::vector<service_row> chosen;
    for (const service_row& service : now.services)
        if (contains(service.service_id, wanted.filter) ||
            contains(service.host_name, wanted.filter) ||
            contains(service.server_id, wanted.filter))
            chosen.push_back(service);
    std::sort(chosen.begin(), chosen.end(), [&](const service_row& a, const service_row& b) {
        return in_order(a, b, wanted.sort);
    });
    return chosen;
}

long long idle_sec(const agent_snapshot& now, const traced_process& process) {
    return process.last_access <= 0 ? -1 : std::max<long long>(0, now.taken - process.last_access);
}

std::vector<std::size_t> queues_in_use(const agent_snapshot& now) {
    const int named = now.settings ? now.settings->qcnt : 0;
    std::vector<std::size_t> queues;
    for (std::size_t i = 0; i < now.que_stat.size(); ++i) {
        const queue_traffic& one = now.que_stat[i];
        const bool traffic =
            (one.in | one.in_discarded | one.out | one.out_discarded | one.now) != 0;
        if (static_cast<int>(i) < named || traffic)
            queues.push_back(i);
    }
    return queues;
}

traced_process trace_totals(const agent_snapshot& now) {
    traced_process all;
    for (const traced_process& process : now.traced) {
        all.threads += process.threads;
        all.dead += process.dead;
        for (const auto& [state, count] : process.states)
            all.states[state] += count;
    }
    return all;
}

std::string trace_summary(const agent_snapshot& now) {
    const traced_process totals = trace_totals(now);
    return counted(static_cast<long long>(now.traced.size()), "process", "processes") + ", " +
           counted(totals.threads, "thread", "threads") + "; " +
           counted(totals.dead, "entry", "entries") + " dead";
}

} // namespace kessctl
