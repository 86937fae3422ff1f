// Parts of a snapshot for programs.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "agent/agent_snapshot.h"

namespace kessctl {

// A service of the service table; its keys are described in docs/console-json.md.
nlohmann::ordered_json service_json(const service_row& service);

} // namespace kessctl
