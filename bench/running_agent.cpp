// The daemon that is measured, and its log.
#include "running_agent.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <filesystem>

#include "measure.h"
#include "tcp_base.h"
#include "wire/frame.h"

namespace bench {
namespace {

constexpr timespec LOOK_AGAIN = {0, 100000};
constexpr long long TAIL_BYTES = 4096;

agt::unique_fd open_log(const std::string& directory) {
    std::error_code error;
    for (const auto& file : std::filesystem::directory_iterator(directory, error))
        return agt::unique_fd(open(file.path().c_str(), O_RDONLY | O_CLOEXEC));
    return {};
}

long long size_of(const agt::unique_fd& file) {
    struct stat info {};
    return fstat(file.get(), &info) == 0 ? info.st_size : 0;
}

} // namespace

log_end::log_end(const test_support::agent& program)
    : directory_(program.path("logs/proc/kessard")), mark_(size_of(open_log(directory_))) {}

bool log_end::find(const std::string& text) {
    if (!file_.valid())
        file_ = open_log(directory_);
    const long long from = std::max(mark_, size_of(file_) - TAIL_BYTES);
    char tail[2 * TAIL_BYTES];
    const ssize_t got = pread(file_.get(), tail, sizeof tail, from);
    return got > 0 && std::string_view(tail, static_cast<std::size_t>(got)).find(text) !=
                          std::string_view::npos;
}

double log_end::wait_us(const std::string& text) {
    const double limit_us = now_us() + test_support::LIMIT_MS * 1e3;
    while (!find(text)) {
        if (now_us() > limit_us || interrupted())
            return NAN;
        nanosleep(&LOOK_AGAIN, nullptr);
    }
    return now_us();
}

running_agent::running_agent(bool keeps_state_file) : keeps_state_file_(keeps_state_file) {
    configure(program);
    program.set("TRAN_SERVER", "CMD_PORT", server.port());
    program.set("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", "1");
    log_end log(program);
    program.start();
    const central_server::arrival asked = server.take(MSG_GET_SERVICE_LIST_REQ);
    const TCP_CMD_MSG no_services = kessctl::service_block_frame(nullptr, 0, true);
    exchange_us({asked.sockfd.get()}, &no_services, 1);
    log.wait_us("start... running");
}

void running_agent::configure(test_support::agent& one) const {
    if (keeps_state_file_)
        one.set("COMMON", "STATE_FILE", one.path("state"));
}

agt::unique_fd running_agent::connect() const {
    return agt::unique_fd(agt::create_tcp_client_session("127.0.0.1", program.port(), 0));
}

} // namespace bench
