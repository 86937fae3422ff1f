// What `kessctl status` and `kessctl metrics` say of a snapshot: as text for people, as JSON and as
// metrics.
#pragma once

#include <string>
#include <vector>

#include "agent/agent_diagnosis.h"
#include "agent/agent_snapshot.h"

namespace kessctl {

struct report_options {
    bool services = false;   // list them
    std::string filter;      // text in a service's id, host or server; case does not matter
    std::string sort = "id"; // id, host, limit (the highest first) or slot
    bool all_traces = false; // list every traced process in the text
    bool all = false;        // everything, whatever the length of the text
    bool colour = false;     // in the text
};

// For people: the health and the problems, the server and the daemon, then a section per kind of
// object, for as long as a screen of 24 lines has room; longer when all, services or traces are
// wanted. Ends with a line end, as the others.
std::string status_text(const agent_snapshot& now, const agent_diagnosis& found,
                        const report_options& wanted);

// All of the snapshot as one JSON object; `reasons` are the problems that degrade the agent.
std::string status_json(const agent_snapshot& now, const agent_diagnosis& found,
                        const report_options& wanted);

// Text exposition format 0.0.4. Of an agent that is not there: kessard_up 0, and what is left of
// it.
std::string status_metrics(const agent_snapshot& now, const agent_diagnosis& found);

// The processes of the registry whose program the filter lets through, by row, program, state
// (those that are not as wanted first) or restarts (the most first).
std::vector<process_row> select_processes(const agent_snapshot& now, const report_options& wanted);

// The services that the filter lets through, in the order wanted.
std::vector<service_row> select_services(const agent_snapshot& now, const report_options& wanted);

// Seconds since a traced process was last active; -1 when its entries do not say.
long long idle_sec(const agent_snapshot& now, const traced_process& process);

// The log queues of the settings, and those beyond that have had traffic.
std::vector<std::size_t> queues_in_use(const agent_snapshot& now);

// Dead entries, entries of threads and entries by state of all traced processes together.
traced_process trace_totals(const agent_snapshot& now);

// "2 processes, 8 threads; 1 entry dead".
std::string trace_summary(const agent_snapshot& now);

} // namespace kessctl
