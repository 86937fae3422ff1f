// Who may command the agent.
#include "access_control.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "audit.h"
#include "host_address.h"
#include "log_printf.h"
#include "read_cfg.h"
#include "settings.h"
#include "state_file.h"

namespace kessard {
namespace {

constexpr int MAX_BLOCKS = 128; // of a value: 16 words of a line of 255 characters hold no more

agt::address_block allowed[MAX_BLOCKS];
int allowed_num = 0; // 0: everybody

void log_refusal(const char* what, const sockaddr_in& peer) {
    char address[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address);
    agt::log_printf("<!> %s refused. (ip %s, port %d)", what, address, ntohs(peer.sin_port));
}

} // namespace

bool take_allowed_addresses(const char* value) {
    std::string list = value;
    allowed_num = 0;
    char* rest = nullptr;
    for (char* text = strtok_r(list.data(), ",", &rest); text != nullptr;
         text = strtok_r(nullptr, ",", &rest)) {
        if (allowed_num == MAX_BLOCKS || !agt::parse_address_block(text, &allowed[allowed_num]))
            return false;
        ++allowed_num;
    }
    return allowed_num > 0;
}

bool take_remote_commands(const char* value) {
    return take_yes_no("TRAN_AGENT REMOTE_COMMANDS_YN", value, &remote_commands_yn);
}

bool admit_cmd_client(const sockaddr_in& peer) {
    const in_addr_t address = ntohl(peer.sin_addr.s_addr);
    const auto covers = [address](const agt::address_block& block) {
        return (address & block.mask) == block.address;
    };
    if (allowed_num == 0 || std::any_of(allowed, allowed + allowed_num, covers))
        return true;
    figure_add(figures->connections_refused[STATE_REFUSED_ADDRESS]);
    log_refusal("command connection", peer);
    audit_connection("refused", peer, -1, "address not allowed");
    return false;
}

bool admit_ext_request(const sockaddr_in& peer) {
    if (remote_commands_yn)
        return true;
    figure_add(figures->remote_commands_refused);
    log_refusal("remote command", peer);
    return false;
}

} // namespace kessard
