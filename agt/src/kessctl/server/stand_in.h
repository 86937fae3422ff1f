// A stand-in for the central server: answers an agent as the server would, records what arrives,
// and misbehaves on request.
//
// A message is answered by its type alone: a health check, device information, a notification or an
// uploaded block with a result, a request for the service list with its first block and each
// acknowledgement with the next; the list is taken from the services when it is asked for, so a
// change in between does not tear it. Then a fault may spoil the answer, the hook may replace it,
// and the observer hears of every piece that is sent.
//
// One thread accepts, one thread serves each connection. Everything public may be called from any
// thread, also while connections are served. The address and port stay the same when the listener
// is closed and opened again. `mutex_` guards what calls and connections share and is held across
// no send or receive; the observer has a mutex of its own, under which it is called.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kessard/cmd_msg.h"
#include "mutex.h"
#include "tls_identity.h"
#include "unique_fd.h"
#include "wire/traffic.h"

namespace kessctl {

// What to do wrong with an answer. Everything may be combined; a delay comes first.
struct answer_fault {
    bool silent = false;        // no answer
    int delay_ms = 0;           // wait before it
    bool garbage = false;       // 1407 bytes that are no message
    bool wrong_magic = false;   // the answer with a changed first byte
    char wrong_type = '\0';     // the answer with this type; '\0' keeps it
    int split_after_bytes = 0;  // send that much, pause, send the rest; 0 sends it whole
    int pause_ms = 100;         // of a split answer
    int close_after_bytes = -1; // send that much, then close the connection; -1 sends it all
    bool reset = false;         // close it by a reset
};

// One message of an agent, as handed to the hook.
struct exchange {
    int connection;
    int nth; // from 1: how many messages of this type the connection has sent
    TCP_CMD_MSG request;
};

struct stand_in_options {
    answer_fault fault;                  // of every answer,
    std::map<char, answer_fault> faults; // unless the type of the message answered is listed here
    int close_after_messages = -1;  // close a connection once that many were answered; -1 never
    bool stop_reading = false;      // leave what arrives unread
    char update_result = '0';       // result_code for uploaded service blocks
    std::string svr_gap_time = "0"; // of the health check
    std::vector<TCP_CMD_MSG> raw_blocks; // when not empty: sent as they are instead of the services
    bool record = true;                  // keep what arrives for messages() and wait_for()
    // May replace the answer; an empty one is not sent. Called from the connections' threads.
    std::function<void(const exchange&, std::string& answer)> hook;
};

struct received_message {
    TCP_CMD_MSG frame;
    int connection; // from 1, in the order of acceptance
    std::chrono::system_clock::time_point at;
};

// Told about everything that arrives or leaves, from the connections' threads, one call at a time.
using traffic_observer = std::function<void(const traffic&)>;

class stand_in {
  public:
    stand_in() = default;
    stand_in(const stand_in&) = delete;
    stand_in& operator=(const stand_in&) = delete;
    ~stand_in() { stop(); }

    // Connections are TLS, to agents whose certificate is signed as the identity wants it; those
    // that are not are closed, and `refused` is told why, from the connections' threads. Before
    // start().
    void use_tls(std::shared_ptr<agt::tls_identity> identity,
                 std::function<void(const std::string& why)> refused = {});
    // Starts listening; port 0 lets the system choose. Empty, or why it could not. `observer` is
    // kept for all connections.
    std::string start(const std::string& address = "127.0.0.1", int port = 0,
                      traffic_observer observer = {});
    // Closes everything and joins every thread; start() may follow.
    void stop();
    // The port of the listener; it is kept while that is closed.
    int port() const { return port_; }

    // Refuses new connections until open_listener(); those that stand stay.
    void close_listener();
    // Empty, also when it is open already, or why it could not be opened.
    std::string open_listener();
    // Closes every connection that stands.
    void drop_connections();

    // The services of the lists that are asked for from here on.
    void set_services(std::vector<SERVICE_ELEMENT> services);
    // Changes the options under their lock.
    void change(const std::function<void(stand_in_options&)>& edit);
    // A copy of the options.
    stand_in_options options() const;

    // What has arrived and was kept, since the start or the last forget_messages(): all of it, or
    // how many of a type.
    std::vector<received_message> messages() const;
    std::size_t count(char type) const;
    int connections() const; // accepted so far
    // Drops what was kept; what the connections have sent still counts for exchange::nth.
    void forget_messages();

    // Waits for the `nth` message of `type` (from 1, since the start or the last
    // forget_messages()).
    std::optional<received_message> wait_for(char type, std::size_t nth = 1,
                                             int limit_ms = 10000) const;
    // Waits until `count` connections were accepted; false when they were not in time.
    bool wait_connections(int count, int limit_ms = 10000) const;
    // Waits until exactly `count` connections stand; false when they did not in time.
    bool wait_open_connections(int count, int limit_ms = 10000) const;

  private:
    struct connection {
        int id = 0;
        agt::unique_fd sockfd;
        std::map<char, int> seen;        // messages by type
        std::vector<TCP_CMD_MSG> blocks; // of the service list being sent
        std::size_t next_block = 0;
        bool done = false;
        std::thread thread;
    };

    // Of the accepting thread: accepts until the listener is closed, starts a connection's thread,
    // and takes back those of connections that have ended.
    void accept_loop();
    void add_connection(agt::unique_fd sockfd);
    void join_done();
    // Of a connection's thread. The bools are false when the connection is to be closed; an empty
    // answer is not sent.
    void serve(connection& peer);
    bool secure(const connection& peer);
    bool serve_message(connection& peer);
    bool wait_reading() const;
    int record(connection& peer, const TCP_CMD_MSG& frame);
    std::string answer_to(connection& peer, const TCP_CMD_MSG& request);
    void start_list(connection& peer);
    std::string next_block(connection& peer);
    bool deliver(connection& peer, std::string answer, const answer_fault& fault);
    bool send_part(connection& peer, const std::string& bytes);
    // Tells the observer, if there is one.
    void observe(const connection& peer, bool sent, std::string bytes);

    mutable agt::mutex mutex_;
    stand_in_options options_ AGT_GUARDED_BY(mutex_);
    std::vector<SERVICE_ELEMENT> services_ AGT_GUARDED_BY(mutex_);
    std::vector<received_message> messages_ AGT_GUARDED_BY(mutex_);
    std::list<connection> connections_ AGT_GUARDED_BY(mutex_);
    int accepted_ AGT_GUARDED_BY(mutex_) = 0;
    bool stopping_ AGT_GUARDED_BY(mutex_) = false;
    mutable std::condition_variable_any changed_;

    agt::mutex observer_mutex_;
    traffic_observer observer_ AGT_GUARDED_BY(observer_mutex_);
    std::shared_ptr<agt::tls_identity> identity_; // not changed while there are threads
    std::function<void(const std::string&)> refused_;
    std::string address_;
    int port_ = 0;
    agt::unique_fd listener_;
    agt::unique_fd listener_end_; // event that ends the accepting thread
    agt::unique_fd end_;          // event that ends the connections' threads
    std::thread acceptor_;
};

} // namespace kessctl
