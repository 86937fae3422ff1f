// Values of a configuration file, word by word as the daemon reads them.
#pragma once

#include <string>

#include "config_keys.h"

namespace kessctl {

// The value of TRAN_AGT_CFG_FILE; empty without it.
std::string default_cfg_file();

// The word of a key, as the file has it now; empty when the file, the key or the word is not there.
std::string cfg_value(const std::string& cfg_file, const agt::config_key& key);

// Where to connect to the agent of the file: its IP_ADDRESS, or this host when that is 0.0.0.0 or
// not there.
std::string agent_host(const std::string& cfg_file);

} // namespace kessctl
