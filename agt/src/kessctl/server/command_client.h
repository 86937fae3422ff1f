// A connection to a daemon's command port, as the central server makes it.
//
// Every call has a limit of its own: while it runs, a timer is the cancel descriptor of the calling
// thread. One thread at a time.
#pragma once

#include <string>

#include "kessard/cmd_msg.h"
#include "unique_fd.h"

namespace kessctl {

inline constexpr int COMMAND_LIMIT_MS = 10000;

class command_client {
  public:
    // Connects, dropping an earlier connection. Every call is false when it failed, and error()
    // then says why.
    bool connect(const std::string& host, int port, int limit_ms = COMMAND_LIMIT_MS);

    // Sends `length` bytes of any content.
    bool send_bytes(const void* bytes, std::size_t length, int limit_ms = COMMAND_LIMIT_MS);
    bool send(const TCP_CMD_MSG& frame, int limit_ms = COMMAND_LIMIT_MS);

    // Receives exactly `length` bytes, or one frame with the magic.
    bool receive_bytes(void* out, std::size_t length, int limit_ms = COMMAND_LIMIT_MS);
    bool receive(TCP_CMD_MSG* out, int limit_ms = COMMAND_LIMIT_MS);

    // Sends a request and receives the response that belongs to it; another type is a failure.
    bool request(const TCP_CMD_MSG& question, TCP_CMD_MSG* answer, int limit_ms = COMMAND_LIMIT_MS);

    // Waits until the peer has closed the connection; false when it sent something or the limit ran
    // out.
    bool wait_closed(int limit_ms = COMMAND_LIMIT_MS);

    void close() { sockfd_.reset(); }
    int fd() const { return sockfd_.get(); }
    const std::string& error() const { return error_; }

  private:
    bool fail(const std::string& what);
    bool failed_transfer(const char* doing, int ret);

    agt::unique_fd sockfd_;
    std::string peer_;
    std::string error_;
};

} // namespace kessctl
