// An agent, its server, and every kind of exchange that there is with the two, each seen through to its effect.
#pragma once

#include "checks.h"
#include "stand_in.h"

namespace test_support {

inline constexpr const char* EXCHANGES[] = {"command", "remote_command", "transfer", "notify",
                                            "reload",  "update",         "sweep"};

class exchanges {
  public:
    kessctl::stand_in server;
    agent a; // configured for all of them, not started
    int limit_ms = LIMIT_MS;

    exchanges();

    // Each tries until it has succeeded or its limit is over. They may run at once, one of a kind.
    bool run(const std::string& name); // one of EXCHANGES
    bool command();                    // deletes a service that is not there
    bool remote_command();
    bool transfer(); // a file goes there and comes back
    bool notify();
    bool reload(); // the table holds the server's services then, another number than before, and is in order
    bool update(); // the script's services go up
    bool sweep();  // a traced process lives and dies

    bool renew();             // asks for one list
    void put_notifications(); // two, which leave together
    void empty_log() const;
    program_result console(texts words) const;

  private:
    int isalive(pid_t pid); // of a process's entry in the trace table, -1 without one

    int lists_ = 0;
    const SVC_HASH_TBL* services_ = nullptr; // attached once
    const PTRC_HASH_TBL* traces_ = nullptr;
    NOTI_SEND_QUE* queue_ = nullptr;
};

} // namespace test_support
