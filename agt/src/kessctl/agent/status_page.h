// A snapshot as a page for people.
#pragma once

#include <string>

#include "agent/agent_diagnosis.h"
#include "agent/look_history.h"

namespace kessctl {

// One page of HTML that needs nothing from elsewhere and no script, for a screen of any width, and
// that loads itself again: the verdict first, then what the daemon does and how full its objects
// are.
std::string status_page(const agent_snapshot& now, const agent_diagnosis& found,
                        const look_history& history);

} // namespace kessctl
