// The bare program at work.
#pragma once

#include <cstdlib>
#include <string>

#include "process.h"
#include "tcp_base.h"
#include "unique_fd.h"

namespace bench {

class bare_peer {
  public:
    // Starts the bare program with this work, which ends with the object.
    explicit bare_peer(const std::string& work, const std::string& file = "")
        : program_({KESSARD_BARE, work, file}, {}) {
        test_support::wait_until([this] { return program_.out().ends_with('\n'); });
    }

    // A new connection to it; the one before must have been closed, but for a crowd.
    agt::unique_fd connect() const {
        return agt::unique_fd(
            agt::create_tcp_client_session("127.0.0.1", std::atoi(program_.out().c_str()), 0));
    }

  private:
    test_support::process program_;
};

} // namespace bench
