// The daemon's own figures for programs.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "agent/agent_snapshot.h"

namespace kessctl {

// Adds the keys of the state file to an object; null where nothing is known.
void add_state(nlohmann::ordered_json& out, const agent_snapshot& now);

} // namespace kessctl
