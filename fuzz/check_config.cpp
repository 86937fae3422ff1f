// The console's check of a configuration file. The first byte of the input chooses the directory of
// relative paths, the rest is the file. What the check would look for in the system is answered
// here.
#include "config/check_config.h"

#include <sys/socket.h>

#include <cerrno>

#include "harness.h"
#include "host/daemon_process.h"
#include "host/listener.h"
#include "host/shared_view.h"

extern "C" int __wrap_bind(int sockfd, const sockaddr* address, socklen_t size);

namespace {

int binds = 0;

const fuzz::memory_file& configuration() {
    static const fuzz::memory_file made;
    return made;
}

} // namespace

namespace kessctl {

object_state find_object(const std::string& cfg_file, const agt::shared_object& object) {
    object_state state;
    state.object = &object;
    state.id = static_cast<int>(cfg_file.size() % 2);
    state.size = object.size + object.size % 3 - 1;
    return state;
}

std::string read_settings(const std::string& cfg_file, TRAN_LOGF_QUE_INFO* out) {
    out->qcnt = static_cast<int>(cfg_file.size() % 2);
    return {};
}

std::vector<pid_t> daemons_of(const std::string&) {
    return {1};
}
std::vector<pid_t> listeners_of(int port) {
    return port % 2 == 0 ? std::vector<pid_t>{1} : std::vector<pid_t>();
}
std::string process_text(pid_t pid) {
    return std::to_string(pid);
}
std::string process_texts(const std::vector<pid_t>& pids) {
    return std::to_string(pids.size());
}

} // namespace kessctl

// No port is taken, not even for a moment.
int __wrap_bind(int, const sockaddr*, socklen_t) {
    static constexpr int ERRORS[] = {0, EADDRINUSE, EADDRNOTAVAIL, EACCES};
    errno = ERRORS[++binds % 4];
    return errno == 0 ? 0 : -1;
}

void fuzz::set_up() {
    configuration();
}

void fuzz::run(std::string_view input) {
    reader from(input);
    const bool has_home = from.number<std::uint8_t>() % 2 != 0;
    binds = 0;
    configuration().set(from.rest());
    kessctl::config_file file;
    if (const std::string fault = file.open(configuration().path()); !fault.empty())
        fail(fault);
    int last = 0;
    for (const kessctl::finding& one : kessctl::check_config(file, has_home ? "/nowhere" : "")) {
        require(one.line >= last && one.line <= file.last_line(),
                "a finding has no line of the file");
        require(!one.key.empty() && !one.what.empty(), "a finding says nothing");
        last = one.line;
    }
}
