// Answers HTTP on a port of this host, on few threads and within limits: one request a connection,
// which has so many bytes and so much time for all of it. What comes while all threads are busy
// waits in the system's short queue.
#pragma once

#include <string>
#include <thread>
#include <vector>

#include "http_calls.h"
#include "unique_fd.h"

namespace kessctl {

class web_server {
  public:
    web_server() = default;
    web_server(const web_server&) = delete;
    web_server& operator=(const web_server&) = delete;
    ~web_server(); // waits for the threads

    // Loads what speaks HTTP and listens at a dotted address; port 0: the system chooses. Empty on
    // success, else why not.
    [[nodiscard]] std::string open(const std::string& address, int port);
    int port() const; // once it is open

    // Answers from now on, in several threads at once, until `cancel_fd` is readable.
    void start(const agt::http_handler& handler, int cancel_fd);

  private:
    agt::unique_fd listener_;
    agt::http_answer_one* answer_one_ = nullptr;
    std::vector<std::thread> threads_;
};

} // namespace kessctl
