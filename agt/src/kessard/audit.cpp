// The audit.
#include "audit.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "log_printf.h"
#include "printable.h"
#include "process_globals.h"
#include "settings.h"
#include "state_file.h"
#include "tls.h"

namespace kessard {
namespace {

constexpr sockaddr_un SYSTEM_LOG = {AF_UNIX, "/dev/log"};
constexpr std::size_t TEXT_LENGTH = 500; // behind the header
constexpr std::size_t FIELDS_SIZE = 4096;

int log_sockfd = -1;
sockaddr_in served_peer{};
int served_sockfd = -1;

void send_line(int severity, const std::string& text) {
    const std::string line = "<" + std::to_string(LOG_AUTHPRIV | severity) + ">" + PROGRAM_NAME +
                             "[" + std::to_string(getpid()) +
                             "]: " + agt::printable(text).str().substr(0, TEXT_LENGTH);
    if (sendto(log_sockfd, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&SYSTEM_LOG), sizeof SYSTEM_LOG) < 0)
        figure_add(figures->audit_lines_lost);
}

// Blanks in a name would look like the end of it.
std::string name_text(int sockfd) {
    std::string name = agt::tls_peer_name(sockfd);
    for (char& c : name)
        c = c == ' ' ? '_' : c;
    return name.empty() ? "-" : name;
}

std::string peer_text(const sockaddr_in& peer, int sockfd) {
    char address[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address);
    return std::string(" peer=") + address + ":" + std::to_string(ntohs(peer.sin_port)) +
           " name=" + name_text(sockfd);
}

} // namespace

bool take_audit(const char* value) {
    if (!take_yes_no("TRAN_AGENT AUDIT_YN", value, &audit_yn))
        return false;
    if (!audit_yn)
        return true;
    log_sockfd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (log_sockfd < 0)
        agt::log_printf("<!> no socket for the audit. errno : %d", errno);
    return log_sockfd >= 0;
}

void audit_connection(const char* event, const sockaddr_in& peer, int sockfd, const char* reason) {
    if (!audit_yn)
        return;
    const int severity = std::strcmp(event, "refused") == 0 ? LOG_WARNING : LOG_INFO;
    send_line(severity, event + peer_text(peer, sockfd) +
                            (*reason == '\0' ? "" : std::string(" reason=") + reason));
}

void audit_serves(const sockaddr_in& peer, int sockfd) {
    served_peer = peer;
    served_sockfd = sockfd;
}

void audit_request(const char* event, const char* fmt, ...) {
    if (!audit_yn)
        return;
    char fields[FIELDS_SIZE];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(fields, sizeof fields, fmt, args);
    va_end(args);
    send_line(LOG_NOTICE, event + peer_text(served_peer, served_sockfd) + " " + fields);
}

} // namespace kessard
