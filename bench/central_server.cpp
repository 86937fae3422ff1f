// The daemon's server during the benchmark.
#include "central_server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>

#include "measure.h"
#include "process.h"
#include "tcp_base.h"
#include "wire/frame.h"

namespace bench {
namespace {

int port_of(int sockfd) {
    sockaddr_in own{};
    socklen_t size = sizeof own;
    getsockname(sockfd, reinterpret_cast<sockaddr*>(&own), &size);
    return ntohs(own.sin_port);
}

bool is_measured(char type) {
    return type == MSG_GET_SERVICE_LIST_REQ || type == MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ;
}

} // namespace

central_server::central_server()
    : listener_(agt::open_tcp_server_session("127.0.0.1", 0)), end_(eventfd(0, EFD_CLOEXEC)) {
    const timeval no_limit = {0, 0}; // connections inherit it
    setsockopt(listener_.get(), SOL_SOCKET, SO_RCVTIMEO, &no_limit, sizeof no_limit);
    port_ = port_of(listener_.get());
    thread_ = std::thread([this] { serve(); });
}

central_server::~central_server() {
    eventfd_write(end_.get(), 1);
    thread_.join();
}

void central_server::serve() {
    for (;;) {
        std::vector<pollfd> watched = {{end_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
        for (const agt::unique_fd& sockfd : open_)
            watched.push_back({sockfd.get(), POLLIN, 0});
        poll(watched.data(), watched.size(), -1);
        if (watched[0].revents != 0)
            return;
        for (std::size_t i = 2; i < watched.size(); ++i)
            if (watched[i].revents != 0 && !serve_request(open_[i - 2]))
                open_[i - 2].reset();
        std::erase_if(open_, [](const agt::unique_fd& sockfd) { return !sockfd.valid(); });
        if (watched[1].revents != 0)
            accept_connection();
    }
}

void central_server::accept_connection() {
    agt::unique_fd sockfd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    const int nodelay = 1;
    setsockopt(sockfd.get(), IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof nodelay);
    open_.push_back(std::move(sockfd));
}

// Receives one request; false when the connection is closed or handed over.
bool central_server::serve_request(agt::unique_fd& sockfd) {
    const double at_us = now_us();
    TCP_CMD_MSG request;
    if (!receive_all(sockfd.get(), &request, sizeof request))
        return false;
    const char type = request.hdr.msg_type[0];
    if (!is_measured(type)) {
        TCP_CMD_MSG answer = kessctl::start_frame(kessctl::response_type(type));
        answer.body.device_info_rsp.result_code[0] = '0';
        return send_all(sockfd.get(), &answer, sizeof answer);
    }
    const std::lock_guard lock(mutex_);
    arrivals_.push_back({{std::move(sockfd), at_us}, type});
    changed_.notify_all();
    return false;
}

central_server::arrival central_server::take(char type) {
    std::unique_lock lock(mutex_);
    const auto find = [&] {
        return std::find_if(arrivals_.begin(), arrivals_.end(),
                            [type](const waiting& one) { return one.type == type; });
    };
    changed_.wait_for(lock, std::chrono::milliseconds(test_support::LIMIT_MS),
                      [&] { return find() != arrivals_.end(); });
    const auto found = find();
    if (found == arrivals_.end())
        return {};
    arrival came = std::move(found->came);
    arrivals_.erase(found);
    return came;
}

} // namespace bench
