// The daemon's server during the benchmark: answers by itself what is not measured, and hands over
// the connection on which something is.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "kessard/cmd_msg.h"
#include "unique_fd.h"

namespace bench {

class central_server {
  public:
    central_server();
    central_server(const central_server&) = delete;
    central_server& operator=(const central_server&) = delete;
    ~central_server();

    int port() const { return port_; }

    struct arrival {
        agt::unique_fd sockfd; // not valid when nothing came in time; the request has been received
        double at_us = 0;
    };
    // Waits for a request of this type (a service list or notifications) and takes its connection
    // over, unanswered.
    arrival take(char type);

  private:
    struct waiting {
        arrival came;
        char type;
    };

    void serve();
    void accept_connection();
    bool serve_request(agt::unique_fd& sockfd);

    agt::unique_fd listener_;
    agt::unique_fd end_;
    int port_ = 0;
    std::vector<agt::unique_fd> open_; // the thread's
    std::mutex mutex_;                 // guards what follows
    std::condition_variable changed_;
    std::vector<waiting> arrivals_;
    std::thread thread_;
};

} // namespace bench
