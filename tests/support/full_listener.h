// A listening socket whose queue is full: connections to it neither succeed nor fail.
#pragma once

#include "checks.h"

namespace test_support {

class full_listener {
  public:
    full_listener() {
        getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&own_), &size_);
        listen(listener_.get(), 0);
        for (agt::unique_fd& one : waiting_) {
            one.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            connect(one.get(), reinterpret_cast<const sockaddr*>(&own_), sizeof own_);
        }
    }
    int port() const { return ntohs(own_.sin_port); }

  private:
    agt::unique_fd listener_{agt::open_tcp_server_session("127.0.0.1", 0)};
    sockaddr_in own_{};
    socklen_t size_ = sizeof own_;
    agt::unique_fd waiting_[4];
};

} // namespace test_support
