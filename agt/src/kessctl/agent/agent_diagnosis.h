// What is wrong with an agent, by one look at it.
#pragma once

#include <string>
#include <vector>

#include "agent/agent_snapshot.h"

namespace kessctl {

// The exit status of `kessctl status` is this number.
enum class agent_health {
    ok = 0,
    degraded = 1,
    absent = 2 // no daemon runs, whatever it left behind; or the configuration cannot be read
};

struct agent_verdict {
    agent_health health = agent_health::ok;
    std::vector<std::string> reasons; // empty only when all is well
};

// A queue, or the service or trace table, filled to `full_percent` is a reason. The cache table is
// meant to fill up and traced processes are meant to end, so these are none.
agent_verdict judge(const agent_snapshot& now, double full_percent);

// "ok", "degraded", "absent".
const char* health_name(agent_health health);

} // namespace kessctl
