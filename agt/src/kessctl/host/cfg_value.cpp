// Values of a configuration file.
#include "host/cfg_value.h"

#include <cstdlib>

#include "read_cfg.h"

namespace kessctl {

std::string default_cfg_file() {
    const char* path = std::getenv("TRAN_AGT_CFG_FILE");
    return path == nullptr ? "" : path;
}

std::string cfg_value(const std::string& cfg_file, const agt::config_key& key) {
    char word[agt::CFG_WORD_SIZE] = "";
    agt::find_nth_token_in_file_section(cfg_file.c_str(), key.section, key.keyword, key.word, word);
    return word;
}

std::string agent_host(const std::string& cfg_file) {
    const std::string address = cfg_value(cfg_file, agt::config_key_of("TRAN_AGENT", "IP_ADDRESS"));
    return address.empty() || address == "0.0.0.0" ? "127.0.0.1" : address;
}

} // namespace kessctl
