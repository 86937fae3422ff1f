// A listening socket whose queue can be filled up: connections to it then neither succeed nor fail.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <vector>

#include "tcp_base.h"
#include "unique_fd.h"

namespace test_support {

class full_listener {
  public:
    int fd() const { return listener_.get(); }
    int port() const { return ntohs(address().sin_port); }

    void fill_up() {
        const sockaddr_in own = address();
        listen(fd(), 0);
        for (int i = 0; i < 4; ++i) {
            waiting_.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            connect(waiting_.back().get(), reinterpret_cast<const sockaddr*>(&own), sizeof own);
        }
    }
    void close() { listener_.reset(); }

  private:
    sockaddr_in address() const {
        sockaddr_in own{};
        socklen_t size = sizeof own;
        getsockname(fd(), reinterpret_cast<sockaddr*>(&own), &size);
        return own;
    }

    agt::unique_fd listener_{agt::open_tcp_server_session("127.0.0.1", 0)};
    std::vector<agt::unique_fd> waiting_;
};

} // namespace test_support
