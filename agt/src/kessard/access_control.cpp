// Who may command the agent.
#include "access_control.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "log_printf.h"
#include "read_cfg.h"
#include "settings.h"
#include "tcp_base.h"

namespace kessard {
namespace {

constexpr char SECTION[] = "TRAN_AGENT";
constexpr char ADDRESSES_KEY[] = "ALLOWED_ADDRESSES";
constexpr char REMOTE_KEY[] = "REMOTE_COMMANDS_YN";
constexpr int MAX_BLOCKS = 128; // of a value: 16 words of a line of 255 characters hold no more

agt::address_block allowed[MAX_BLOCKS];
int allowed_num = 0; // 0: everybody

bool take_addresses(char* word) {
    char* rest = nullptr;
    for (char* text = strtok_r(word, ",", &rest); text != nullptr;
         text = strtok_r(nullptr, ",", &rest)) {
        if (allowed_num == MAX_BLOCKS || !agt::parse_address_block(text, &allowed[allowed_num])) {
            agt::log_printf("<!> %s %s : not an address or block of addresses (%s)", SECTION,
                            ADDRESSES_KEY, text);
            return false;
        }
        ++allowed_num;
    }
    return true;
}

// Whether a look-up that found nothing has left an error: a file that cannot be read must not open
// the door.
bool is_unreadable(const char* keyword) {
    const int error = errno;
    if (error != 0)
        agt::log_printf("<!> %s %s : cannot be read, errno : %d", SECTION, keyword, error);
    return error != 0;
}

bool read_addresses() {
    char word[agt::CFG_WORD_SIZE];
    allowed_num = 0;
    errno = 0;
    for (int n = 1;
         agt::find_nth_token_in_file_section(cfg_file(), SECTION, ADDRESSES_KEY, n, word) > 0;
         ++n) {
        if (!take_addresses(word))
            return false;
        errno = 0;
    }
    const bool absent = agt::find_line_in_file_section(cfg_file(), SECTION, ADDRESSES_KEY) < 0;
    if (is_unreadable(ADDRESSES_KEY))
        return false;
    if (allowed_num > 0 || absent)
        return true;
    agt::log_printf("<!> %s %s : names no address", SECTION, ADDRESSES_KEY);
    return false;
}

bool read_remote_commands() {
    char word[agt::CFG_WORD_SIZE];
    remote_commands_yn = true;
    errno = 0;
    if (agt::find_nth_token_in_file_section(cfg_file(), SECTION, REMOTE_KEY, 1, word) < 0)
        return !is_unreadable(REMOTE_KEY);
    remote_commands_yn = std::strcmp(word, "Y") == 0;
    if (remote_commands_yn || std::strcmp(word, "N") == 0)
        return true;
    agt::log_printf("<!> %s %s : neither Y nor N (%s)", SECTION, REMOTE_KEY, word);
    return false;
}

void log_refusal(const char* what, const sockaddr_in& peer) {
    char address[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address);
    agt::log_printf("<!> %s refused. (ip %s, port %d)", what, address, ntohs(peer.sin_port));
}

} // namespace

bool read_access_control() {
    return read_addresses() && read_remote_commands();
}

bool admit_cmd_client(const sockaddr_in& peer) {
    const in_addr_t address = ntohl(peer.sin_addr.s_addr);
    const auto covers = [address](const agt::address_block& block) {
        return (address & block.mask) == block.address;
    };
    if (allowed_num == 0 || std::any_of(allowed, allowed + allowed_num, covers))
        return true;
    log_refusal("command connection", peer);
    return false;
}

bool admit_ext_request(const sockaddr_in& peer) {
    if (!remote_commands_yn)
        log_refusal("remote command", peer);
    return remote_commands_yn;
}

} // namespace kessard
