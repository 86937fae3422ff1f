// An agent, its server, and every kind of exchange with the two, each seen through to its effect.
#pragma once

#include "served_agent.h"

namespace test_support {

inline constexpr int TRY_MS = 1000;             // of a step that what else happens may have spoilt
inline constexpr unsigned LEAST_SERVICES = 200; // in the table when no list is coming in

class exchanges : public served_agent {
  protected:
    int limit_ms = LIMIT_MS;
    std::shared_ptr<agt::tls_identity> identity; // of the clients; null without TLS

    exchanges(); // the agent is configured for all of them, and not started

    // Each tries until it has succeeded or its limit is over. They may run at once, one of a kind.
    void expect_all(); // each succeeds, in turn
    bool command();    // deletes a service that is not there
    bool remote_command();
    bool transfer(); // a file goes there and comes back
    bool notify();
    bool reload(); // the table is in order then and holds another number of services
    bool update(); // the script's services go up
    bool sweep();  // a traced process lives and dies

    static inline const std::pair<std::string, bool (exchanges::*)()> ALL[] = {
        {"command", &exchanges::command},   {"remote_command", &exchanges::remote_command},
        {"transfer", &exchanges::transfer}, {"notify", &exchanges::notify},
        {"reload", &exchanges::reload},     {"update", &exchanges::update},
        {"sweep", &exchanges::sweep}};

    bool renew() const;       // asks for one list
    void put_notifications(); // two, which leave together
    // Writes anything into counts, stacks, chains, names and indexes, but leaves the watchdog its
    // trace table: out of range, that ends it. The notification queue is in order again at the end.
    void spoil_until(const std::atomic<bool>& over);
    void empty_log() const;

    // A client that may ask: one of its own for each exchange.
    kessctl::command_client new_client() const;

  private:
    bool is_answered(const TCP_CMD_MSG& request, TCP_CMD_MSG* got) const;
    template <class Attempt> bool repeat(Attempt attempt) { return wait_until(attempt, limit_ms); }
    int isalive(pid_t pid); // of a process's entry in the trace table, -1 without one

    int lists_ = 0;
    const SVC_HASH_TBL* services_ = nullptr; // attached once
    const PTRC_HASH_TBL* traces_ = nullptr;
    NOTI_SEND_QUE* queue_ = nullptr;
};

} // namespace test_support
