// One request of HTTP, by cpp-httplib.
//
// A server object of its own serves each request: it opens no socket, keeps nothing and starts no
// thread; only its reader of requests and its writer of answers are used.
#include <httplib.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "http_calls.h"

namespace agt {
namespace {

// Reads ahead, since the library asks for single bytes.
class peer_stream : public httplib::Stream {
  public:
    explicit peer_stream(const http_bytes& peer) : peer_(peer) {}

    bool is_readable() const override { return true; }
    bool is_writable() const override { return true; }
    ssize_t read(char* out, std::size_t size) override {
        if (next_ == end_) {
            next_ = 0;
            end_ = peer_.read(buffer_, sizeof buffer_);
        }
        if (end_ <= 0)
            return std::exchange(end_, 0);
        const auto count = std::min(size, static_cast<std::size_t>(end_ - next_));
        std::memcpy(out, buffer_ + next_, count);
        next_ += static_cast<ssize_t>(count);
        return static_cast<ssize_t>(count);
    }
    ssize_t write(const char* bytes, std::size_t size) override { return peer_.write(bytes, size); }
    void get_remote_ip_and_port(std::string&, int&) const override {}
    void get_local_ip_and_port(std::string&, int&) const override {}
    int socket() const override { return -1; }

  private:
    const http_bytes& peer_;
    char buffer_[4096] = {};
    ssize_t next_ = 0;
    ssize_t end_ = 0;
};

// Parts of an answer are not given, which could multiply it, and of the packings only the cheap
// one.
void restrict(httplib::Request& request) {
    const bool gzip = request.get_header_value("Accept-Encoding").find("gzip") != std::string::npos;
    request.ranges.clear();
    request.headers.erase("Accept-Encoding");
    if (gzip)
        request.set_header("Accept-Encoding", "gzip");
}

class one_request : public httplib::Server {
  public:
    explicit one_request(const http_handler& handler) {
        set_default_headers({{"Cache-Control", "no-store"},
                             {"Content-Security-Policy",
                              "default-src 'none'; style-src 'unsafe-inline'; img-src data:"},
                             {"X-Content-Type-Options", "nosniff"}});
        set_pre_routing_handler([&](const httplib::Request& request, httplib::Response& response) {
            const bool known = request.method == "GET" || request.method == "HEAD";
            http_answer answer = {405, http_answer().type, "only GET\n"};
            if (known)
                answer = handler(request.path);
            if (!known)
                response.set_header("Allow", "GET, HEAD");
            response.status = answer.status;
            response.set_content(answer.body, answer.type);
            return HandlerResponse::Handled;
        });
    }
    void answer(const http_bytes& peer) {
        peer_stream stream(peer);
        bool closed = false;
        process_request(stream, true, closed, restrict);
    }
};

} // namespace
} // namespace agt

extern "C" [[gnu::visibility("default")]] agt::http_answer_one kessard_http_answer_one;
void kessard_http_answer_one(const agt::http_bytes& peer, const agt::http_handler& handler) {
    agt::one_request(handler).answer(peer);
}
