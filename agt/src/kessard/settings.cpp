// Access to the settings that change, and to single keys.
#include "settings.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "field.h"
#include "log_printf.h"
#include "mutex.h"
#include "read_cfg.h"
#include "shortage.h"

namespace kessard {
namespace {

agt::mutex server_mutex; // never held across a connect
server_address server AGT_GUARDED_BY(server_mutex);

bool read_word(const agt::config_key& key, std::string* value) {
    char word[agt::CFG_WORD_SIZE];
    const auto look_up = key.absence == agt::key_absence::is_silent
                             ? agt::find_nth_token_in_file_section
                             : agt::get_nth_token_in_file_section;
    if (look_up(cfg_file(), key.section, key.keyword, key.word, word) < 0)
        return false;
    *value = word;
    return true;
}

// An entry without a word is found: its value is empty. What was read in part only is not.
bool read_all_words(const agt::config_key& key, std::string* value) {
    const std::string words = agt::all_words_of(cfg_file(), key);
    if (errno != 0 || agt::find_line_in_file_section(cfg_file(), key.section, key.keyword) < 0)
        return false;
    *value = words;
    return true;
}

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

cfg_answer read_cfg(const agt::config_key& key, std::string* value) {
    errno = 0;
    if (key.word == agt::ALL_WORDS ? read_all_words(key, value) : read_word(key, value))
        return cfg_answer::found;
    return errno == 0 ? cfg_answer::absent : cfg_answer::unreadable;
}

int to_number(const char* value) {
    return static_cast<int>(std::strtol(value, nullptr, 10));
}

bool read_cfg_number(const agt::config_key& key, int* number) {
    std::string value;
    if (read_cfg(key, &value) != cfg_answer::found) {
        log_shortage(key.keyword, errno);
        return false;
    }
    *number = to_number(value.c_str());
    return true;
}

bool take_yes_no(const char* name, const char* value, bool* yes) {
    *yes = std::strcmp(value, "Y") == 0;
    if (*yes || std::strcmp(value, "N") == 0)
        return true;
    agt::log_printf("<!> %s : neither Y nor N (%s)", name, value);
    return false;
}

} // namespace kessard
