// What is wrong with an agent, by one look at it, and what to do about it.
//
// `status`, `metrics` and `doctor` all say what stands here: status lists what degrades the agent,
// metrics counts that, doctor lists everything with its advice.
#pragma once

#include <string>
#include <vector>

#include "agent/agent_snapshot.h"
#include "agent/problem.h"

namespace kessctl {

// The exit status of `kessctl status` is this number.
enum class agent_health {
    ok = 0,
    degraded = 1,
    absent = 2 // no daemon runs, whatever it left behind; or the configuration cannot be read
};

struct agent_diagnosis {
    agent_health health = agent_health::ok;
    std::vector<problem> problems; // the worst comes first when the agent is absent

    // What degrades the agent; empty only when all is well.
    std::vector<std::string> reasons() const;
};

// What to do about shared objects that cannot be used as they are.
inline constexpr char CLEAN_AND_START[] =
    "stop the daemon and the processes that use it, run kessctl clean, start the daemon";

// Judges a snapshot. A queue, or the service or trace table, filled to `full_percent` is a problem.
// The cache table is meant to fill up and traced processes are meant to end, so these are none.
[[nodiscard]] agent_diagnosis diagnose(const agent_snapshot& now, double full_percent);

// Whether the daemon runs and has the last of the objects that its start makes, or has had the time
// where that cannot be seen.
bool has_started(const agent_snapshot& now);

// "ok", "degraded", "absent".
const char* health_name(agent_health health);

} // namespace kessctl
