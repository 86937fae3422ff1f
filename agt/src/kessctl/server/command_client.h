// A connection to a daemon's command port, as the central server makes it.
//
// A conversation is one frame out and one frame in, any number of times; the daemon answers in the
// order of the requests and says nothing of its own. Extended requests take the connection over
// after their frame (ext_client.h). Every call has a limit of its own: while it runs, a timer is
// the cancel descriptor of the calling thread, so no wait outlasts it. After a failure the rest of
// an answer may still be on its way, so the connection is of no further use. One thread at a time.
#pragma once

#include <netinet/in.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "kessard/cmd_msg.h"
#include "tls_identity.h"
#include "unique_fd.h"

namespace kessctl {

inline constexpr int COMMAND_LIMIT_MS = 10000;

class command_client {
  public:
    command_client() = default;
    command_client(command_client&&) = default;
    command_client& operator=(command_client&&) = delete;
    ~command_client() { close(); }

    // Connections from here on are TLS, to an agent whose certificate carries `server_name`, or the
    // host that is connected to when that is empty. Null: they are not.
    void use_tls(std::shared_ptr<agt::tls_identity> identity, const std::string& server_name) {
        identity_ = std::move(identity);
        server_name_ = server_name;
    }

    // Connects to a name or dotted address, dropping an earlier connection. Every call is false
    // when it failed, and error() then says why.
    bool connect(const std::string& host, int port, int limit_ms = COMMAND_LIMIT_MS);

    // Sends `length` bytes of any content.
    bool send_bytes(const void* bytes, std::size_t length, int limit_ms = COMMAND_LIMIT_MS);
    // Sends one frame as it is.
    bool send(const TCP_CMD_MSG& frame, int limit_ms = COMMAND_LIMIT_MS);

    // Receives exactly `length` bytes; what has arrived of them when it fails is lost.
    [[nodiscard]] bool receive_bytes(void* out, std::size_t length,
                                     int limit_ms = COMMAND_LIMIT_MS);
    // Receives `length` bytes and hands them over as they come, in `buffer`, which has room for
    // them; false, with the errno of `take`, also when it does not take them.
    using part_taker = std::function<bool(std::string_view)>;
    [[nodiscard]] bool receive_parts(char* buffer, std::size_t length, const part_taker& take,
                                     int limit_ms = COMMAND_LIMIT_MS);
    // Receives one frame; one without the magic is a failure.
    [[nodiscard]] bool receive(TCP_CMD_MSG* out, int limit_ms = COMMAND_LIMIT_MS);

    // Sends a request and receives the response that belongs to it; another type is a failure.
    [[nodiscard]] bool request(const TCP_CMD_MSG& question, TCP_CMD_MSG* answer,
                               int limit_ms = COMMAND_LIMIT_MS);

    // Waits until the peer has closed the connection; false when it sent something or the limit ran
    // out.
    [[nodiscard]] bool wait_closed(int limit_ms = COMMAND_LIMIT_MS);

    // Closes the connection, if there is one.
    void close();
    // The socket, which stays the client's; -1 without a connection.
    int fd() const { return sockfd_.get(); }
    // Why the last call that failed did, with the peer.
    const std::string& error() const { return error_; }
    // Whether it did because the agent took too long.
    bool timed_out() const { return timed_out_; }
    // How the agent closed the connection without having sent anything on it: after it had read
    // what was sent, or with that left unread; not_closed when it did not.
    enum class early_close { not_closed, read, unread };
    early_close closed_early() const { return closed_early_; }
    // This host's address on the last connection, as the agent sees it; 0.0.0.0 without one.
    in_addr own_address() const { return own_address_; }

  private:
    // Keep what went wrong for error(); false, to be returned.
    bool fail(const std::string& what);
    bool failed_transfer(const char* doing, int ret);

    bool is_reset_late() const;
    bool secure(const std::string& host, int limit_ms);

    agt::unique_fd sockfd_;
    std::shared_ptr<agt::tls_identity> identity_;
    std::string server_name_;
    std::string peer_;
    std::string error_;
    bool timed_out_ = false;
    bool heard_ = false; // the agent has sent something on this connection
    early_close closed_early_ = early_close::not_closed;
    in_addr own_address_{};
};

} // namespace kessctl
