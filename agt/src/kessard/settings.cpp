// Access to the settings that change, and to single keys.
#include "settings.h"

#include <cstdlib>

#include "field.h"
#include "mutex.h"
#include "read_cfg.h"

namespace kessard {
namespace {

agt::mutex server_mutex; // never held across a connect
server_address server AGT_GUARDED_BY(server_mutex);

} // namespace

server_address get_server_address() {
    const agt::lock_guard guard(server_mutex);
    return server;
}

void set_server_address(const char* ipaddr, int port) {
    const agt::lock_guard guard(server_mutex);
    agt::copy_text(server.srv_ipaddr, ipaddr);
    server.srv_cmd_port = port;
}

const char* cfg_file() {
    const char* path = std::getenv("TRAN_AGT_CFG_FILE");
    return path == nullptr ? "" : path;
}

bool read_cfg_word(const char* section, const char* keyword, char* word) {
    return agt::get_nth_token_in_file_section(cfg_file(), section, keyword, 1, word) > 0;
}

bool read_cfg_number(const char* section, const char* keyword, int* number) {
    char word[agt::CFG_WORD_SIZE];
    if (!read_cfg_word(section, keyword, word))
        return false;
    *number = static_cast<int>(std::strtol(word, nullptr, 10));
    return true;
}

} // namespace kessard
