// The daemon that is measured, and its log.
#pragma once

#include <string>

#include "agent_fixture.h"
#include "bare_peer.h"
#include "central_server.h"
#include "kessard/cmd_msg.h"

namespace bench {

// Watches the log for a line that comes after this object was made.
class log_end {
  public:
    explicit log_end(const test_support::agent& program);

    // Waits for the text; when it was there, in microseconds, to about a tenth of a millisecond.
    // Not a number when it does not come.
    double wait_us(const std::string& text);

  private:
    bool find(const std::string& text);

    std::string directory_;
    agt::unique_fd file_; // once there is one
    long long mark_;
};

// A daemon with its server, its notify link up and an empty service table. A failure to start shows
// in every measurement.
class running_agent {
  public:
    explicit running_agent(bool keeps_state_file);

    void configure(test_support::agent& one) const; // what all agents of a run have in common

    central_server server;
    test_support::agent program;

    agt::unique_fd connect() const; // to the command port

  private:
    bool keeps_state_file_;
};

} // namespace bench
