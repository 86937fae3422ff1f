// Where the agents of a host have their files, when there are several of them.
#pragma once

#include <string>
#include <vector>

namespace kessctl {

// Of one agent. KESSARD_ROOT, if it is set, stands in front of each path.
struct agent_place {
    std::string cfg_file;
    std::string home;
    std::string log_home;
};

// The places of the agent of that name; of the one that has none for an empty name.
agent_place place_of(const std::string& name);

// Why an agent cannot have that name; empty when it can.
std::string agent_name_fault(const std::string& name);

// The configuration files of all agents of the host that are at their places.
std::vector<std::string> agents_files();

} // namespace kessctl
