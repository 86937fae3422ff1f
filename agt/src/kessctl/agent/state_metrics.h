// The daemon's own figures for Prometheus.
#pragma once

#include <string>

#include "agent/agent_snapshot.h"

namespace kessctl {

// Adds the families of the state file; without one none, with one that cannot be used the one that
// says so.
void state_metrics(std::string& out, const agent_snapshot& now);

} // namespace kessctl
