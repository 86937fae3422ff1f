// The views of kessctl show.
#pragma once

#include <string>

#include "commands/agent_options.h"

namespace kessctl {

struct show_options {
    std::string cfg_file = default_cfg_file();
    int records = 3;
    bool json = false;
};

// Shows the queues with their last records.
exit_status show_queues(const show_options& chosen);

} // namespace kessctl
