// What the commands change, as text, so that the audit can say what a command did.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "kessard/cmd_msg.h"

namespace kessard {

using state_fields = std::vector<std::pair<std::string, std::string>>; // name and value

// What a request of each type may change, as it is: the settings, the thresholds of the resources,
// the services that the request names. On the main thread.
state_fields settings_state(const TCP_CMD_MSG& request);
state_fields resource_state(const TCP_CMD_MSG& request);
state_fields service_state(const TCP_CMD_MSG& request);

// " name=value" of each field, " name=old->new" where it changed.
std::string effect_text(const state_fields& before, const state_fields& after);

} // namespace kessard
