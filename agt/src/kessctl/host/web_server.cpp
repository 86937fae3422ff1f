// Answers HTTP on a port of this host.
#include "host/web_server.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tcp_base.h"
#include "wait.h"

namespace kessctl {
namespace {

constexpr int THREADS = 4;
constexpr int CONNECTION_MS = 5000;
constexpr int LAST_WORDS_MS = 500; // for what a peer still sends behind its request
constexpr std::size_t REQUEST_BYTES = 16384;

class connection {
  public:
    explicit connection(int sockfd) : sockfd_(sockfd) {}
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;
    // What is unread when a socket is closed would make the peer lose the answer.
    ~connection() {
        char unread[512];
        shutdown(sockfd_, SHUT_WR);
        until_ms_ = std::min(until_ms_, agt::monotonic_ms() + LAST_WORDS_MS);
        while (read(unread, sizeof unread) > 0)
            continue;
        agt::close_tcp_session(sockfd_);
    }

    ssize_t read(char* out, std::size_t size) {
        const std::size_t wanted = std::min(size, bytes_left_);
        ssize_t got = -1;
        while (wanted > 0 && wait(POLLIN)) {
            got = recv(sockfd_, out, wanted, MSG_DONTWAIT);
            if (got >= 0 || !may_come(errno))
                break;
        }
        bytes_left_ -= static_cast<std::size_t>(std::max<ssize_t>(got, 0));
        return got;
    }
    ssize_t write(const char* bytes, std::size_t size) {
        ssize_t sent = -1;
        while (wait(POLLOUT)) {
            sent = send(sockfd_, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (sent >= 0 || !may_come(errno))
                break;
        }
        return sent;
    }

  private:
    static bool may_come(int error) { return error == EAGAIN || error == EINTR; }
    bool wait(short event) const {
        const long long left_ms = until_ms_ - agt::monotonic_ms();
        return left_ms > 0 && !agt::cancelled() &&
               agt::wait_fd(sockfd_, event, static_cast<int>(left_ms)) == agt::wait_result::ready;
    }

    int sockfd_;
    long long until_ms_ = agt::monotonic_ms() + CONNECTION_MS;
    std::size_t bytes_left_ = REQUEST_BYTES;
};

// Takes connections from the listening socket, which the other threads do, too, until cancelled.
void serve(int listener, agt::http_answer_one* answer_one, const agt::http_handler& handler) {
    constexpr int shortage_ms = 100; // a descriptor may be free then
    while (!agt::cancelled() && agt::wait_fd(listener, POLLIN, -1) == agt::wait_result::ready) {
        sockaddr_in peer{};
        const agt::accepted got = agt::accept_connection(listener, &peer);
        if (got.result == agt::accept_result::failed && !agt::sleep_ms(shortage_ms))
            return;
        if (got.result != agt::accept_result::accepted)
            continue;
        connection one(got.sockfd);
        answer_one({[&](char* out, std::size_t size) { return one.read(out, size); },
                    [&](const char* bytes, std::size_t size) { return one.write(bytes, size); }},
                   handler);
    }
}

} // namespace

web_server::~web_server() {
    for (std::thread& one : threads_)
        one.join();
}

std::string web_server::open(const std::string& address, int port) {
    void* module = dlopen(agt::HTTP_MODULE, RTLD_NOW | RTLD_LOCAL);
    void* symbol = module == nullptr ? nullptr : dlsym(module, agt::HTTP_SYMBOL);
    answer_one_ = reinterpret_cast<agt::http_answer_one*>(symbol);
    if (answer_one_ == nullptr) {
        const char* reason = dlerror();
        return reason != nullptr ? reason : agt::HTTP_MODULE;
    }
    listener_.reset(agt::open_tcp_server_session(address.c_str(), port));
    return listener_.valid() ? ""
                             : "cannot listen on " + address + ":" + std::to_string(port) + ": " +
                                   std::strerror(errno);
}

int web_server::port() const {
    sockaddr_in own{};
    socklen_t size = sizeof own;
    getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&own), &size);
    return ntohs(own.sin_port);
}

void web_server::start(const agt::http_handler& handler, int cancel_fd) {
    for (int i = 0; i < THREADS; ++i)
        threads_.emplace_back([this, handler, cancel_fd] {
            agt::set_cancel_fd(cancel_fd);
            serve(listener_.get(), answer_one_, handler);
        });
}

} // namespace kessctl
