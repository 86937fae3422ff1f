// TLS of the daemon.
#include "tls_policy.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "audit.h"
#include "config_slips.h"
#include "log_printf.h"
#include "settings.h"
#include "state_file.h"
#include "tls.h"
#include "tls_identity.h"
#include "util.h"
#include "wait.h"

namespace kessard {
namespace {

using agt::config_key_of;

constexpr std::time_t DAY_SEC = 86400;
constexpr int WARNED_DAYS[] = {0, 1, 7, 30};

agt::tls_files files;
std::vector<std::string> peer_names; // empty: everybody
std::string server_name;             // empty: the address that is connected to
agt::tls_identity identity;

template <std::string agt::tls_files::*File> bool take_file(const char* word) {
    agt::tls_file_text path;
    if (!agt::resolve_path(path, sizeof path, std::getenv("TRAN_AGT_HOME"), word)) {
        agt::log_printf("<!> TLS : the path of a file is too long (%s)", word);
        return false;
    }
    files.*File = path;
    return true;
}

bool take_peer_names(const char* value) {
    std::string list = value;
    char* rest = nullptr;
    for (char* name = strtok_r(list.data(), ",", &rest); name != nullptr;
         name = strtok_r(nullptr, ",", &rest))
        peer_names.emplace_back(name);
    return !peer_names.empty();
}

bool take_server_name(const char* word) {
    server_name = word;
    return true;
}

constexpr cfg_step TLS_STEPS[] = {
    {config_key_of("TLS", "CERT_FILE"), take_file<&agt::tls_files::cert>},
    {config_key_of("TLS", "KEY_FILE"), take_file<&agt::tls_files::key>},
    {config_key_of("TLS", "CA_FILE"), take_file<&agt::tls_files::ca>},
    {config_key_of("TLS", "PEER_NAMES"), take_peer_names},
    {config_key_of("TLS", "SERVER_NAME"), take_server_name},
};
static_assert(are_all_steps(TLS_STEPS,
                            [](const agt::config_key& key) {
                                return key.reader == agt::key_reader::tls;
                            }),
              "the table has a key of TLS without a step in its place");

std::string date_of(std::time_t when) {
    const struct tm local = agt::local_time(when);
    char text[32] = "";
    std::strftime(text, sizeof text, "%F %T", &local);
    return text;
}

void tell_expiry() {
    figure_set(figures->certificate_end_sec, identity.expires());
}

// Takes files that have changed.
void refresh() {
    std::string why;
    const agt::tls_identity::change change = identity.refresh(&why);
    if (change == agt::tls_identity::change::taken) {
        tell_expiry();
        agt::log_printf("(I) TLS : changed files taken, certificate valid until %s",
                        date_of(identity.expires()).c_str());
    }
    if (change == agt::tls_identity::change::kept)
        agt::log_printf("<!> TLS : changed files cannot be used, the old ones are kept. (%s)",
                        why.c_str());
}

sockaddr_in peer_of(int sockfd) {
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    getpeername(sockfd, reinterpret_cast<sockaddr*>(&peer), &size);
    return peer;
}

void log_failure(const char* what, const sockaddr_in& peer, const std::string& why) {
    char address[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address);
    ++tls_refusals;
    agt::log_printf("<!> TLS %s failed. (ip %s, port %d, %s)", what, address, ntohs(peer.sin_port),
                    why.c_str());
}

} // namespace

bool start_tls() {
    if (!agt::has_tls_section(fenced_cfg()))
        return true;
    for (const cfg_step& step : TLS_STEPS) {
        std::string value;
        if (read_cfg(step.key, &value) == cfg_answer::found && !step.take(value.c_str()))
            return false;
    }
    const std::string fault = identity.open(files);
    if (!fault.empty()) {
        agt::log_printf("<!> TLS : %s", fault.c_str());
        return false;
    }
    tell_expiry();
    agt::log_printf("(I) TLS on. certificate %s, valid until %s", files.cert.c_str(),
                    date_of(identity.expires()).c_str());
    return true;
}

bool is_tls_on() {
    return identity.is_open();
}

agt::tls_session* begin_cmd_session(int sockfd) {
    refresh();
    return identity.begin(sockfd, agt::tls_side::accepts, peer_names);
}

bool secure_server_socket(int sockfd, const char* ipaddr) {
    if (!is_tls_on())
        return true;
    refresh();
    const std::string name = server_name.empty() ? ipaddr : server_name;
    std::string why;
    if (agt::secure_socket(sockfd, identity.begin(sockfd, agt::tls_side::connects, {name}),
                           agt::TLS_HANDSHAKE_MS, &why))
        return true;
    if (!agt::cancelled())
        log_failure("with the server", peer_of(sockfd), why);
    return false;
}

bool log_server_failure(int sockfd) {
    const std::string why = agt::tls_failure(sockfd);
    if (!why.empty())
        log_failure("with the server", peer_of(sockfd), why);
    return !why.empty();
}

void log_tls_refusal(const sockaddr_in& peer, const std::string& why) {
    figure_add(figures->connections_refused[STATE_REFUSED_TLS]);
    audit_connection("refused", peer, -1, why.c_str());
    log_failure("of a command connection", peer, why);
}

void warn_of_expiry(std::time_t now) {
    static std::time_t warned_of = 0;
    static int warned_days = INT_MAX;
    if (!is_tls_on())
        return;
    const std::time_t expires = identity.expires();
    if (expires != warned_of)
        warned_days = INT_MAX;
    warned_of = expires;
    const int* days = std::find_if(std::begin(WARNED_DAYS), std::end(WARNED_DAYS),
                                   [&](int most) { return expires - now <= most * DAY_SEC; });
    if (days == std::end(WARNED_DAYS) || *days >= warned_days)
        return;
    warned_days = *days;
    agt::log_printf(*days == 0 ? "<!> TLS : the certificate has expired. (%s)"
                               : "<!> TLS : the certificate expires soon. (%s)",
                    date_of(expires).c_str());
}

} // namespace kessard
