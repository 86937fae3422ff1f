// Access to the settings that change, and to single keys.
#include "settings.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "config_slips.h"
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

agt::config_file fence; // the file as it was judged; empty until then

bool read_fenced(const agt::config_key& key, std::string* value) {
    if (fence.pieces().empty() || fence.entry_of(key) < 0)
        return false;
    *value = fence.value_of(key);
    return true;
}

// Both in the log and on standard error, as there may be nobody to read one of them.
void say_slip(const agt::config_slip& slip) {
    const std::string key = agt::key_name(*slip.key);
    agt::log_printf("<!> %s:%d: %s: %s", cfg_file(), slip.line, key.c_str(), slip.what.c_str());
    std::fprintf(stderr, "<!> %s:%d: %s: %s\n", cfg_file(), slip.line, key.c_str(),
                 slip.what.c_str());
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
    if (key.protects ? read_fenced(key, value) : read_word(key, value))
        return cfg_answer::found;
    return errno == 0 ? cfg_answer::absent : cfg_answer::unreadable;
}

bool fence_cfg() try {
    errno = 0;
    if (!fence.open(cfg_file()).empty()) {
        agt::log_printf("<!> %s : cannot be read, errno : %d", cfg_file(), errno);
        return false;
    }
    const std::vector<agt::config_slip> slips = agt::find_slips(fence);
    std::for_each(slips.begin(), slips.end(), say_slip);
    const std::string policy = agt::policy_text(fence);
    if (slips.empty() && !policy.empty())
        agt::log_printf("(i) policy : %s", policy.c_str());
    return slips.empty();
} catch (const std::bad_alloc&) {
    agt::log_printf("<!> %s : cannot be read, errno : %d", cfg_file(), ENOMEM);
    return false;
}

const agt::config_file& fenced_cfg() {
    return fence;
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
