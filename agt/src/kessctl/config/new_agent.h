// The configuration of a further agent of this host.
#pragma once

#include <string>

namespace kessctl {

struct new_agent {
    std::string name;
    std::string from; // configuration file of which it is a copy
    int key = 771101; // of System V, the first to try
    int port = 7711;  // the first to try; the one that it has got, afterwards
};

// Writes its configuration to its place: a copy with a log and a state file of its own, and with
// keys and a command port that no agent's file names and nobody on the host uses. Empty on success,
// else why not; a file that is there is left alone.
[[nodiscard]] std::string write_agent(new_agent& wanted);

} // namespace kessctl
