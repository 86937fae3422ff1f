// The check of a configuration file: everything that the daemon reads from it, in one pass.
#pragma once

#include <string>
#include <vector>

#include "config/check_values.h"
#include "config_file.h"

namespace kessctl {

using agt::config_file;

// An error is what stops the daemon, or makes it do something else than what is written; a note is
// no reason to worry.
struct finding {
    int line;
    severity level;
    std::string key; // SECTION/KEYWORD, [SECTION], or "line"
    std::string what;
    std::string allowed; // empty where that says nothing
};

// What is wrong with the file, in the order of its lines. Relative paths are taken under `home`.
std::vector<finding> check_config(const config_file& file, const std::string& home);

} // namespace kessctl
