// What the module kessard_http.so does for the program that loads it: one request of HTTP read and
// answered. It knows no sockets and waits for nothing itself: bytes come and go through the two
// calls that it is given.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>

namespace agt {

struct http_answer {
    int status = 200;
    std::string type = "text/plain; charset=utf-8";
    std::string body;
};

// Answers a GET of a path, without what stands behind a '?'.
using http_handler = std::function<http_answer(const std::string& path)>;

// Of one connection. Like read() and write(), though they wait: -1 once the time or the size that
// the peer is allowed is spent.
struct http_bytes {
    std::function<ssize_t(char* buffer, std::size_t size)> read;
    std::function<ssize_t(const char* bytes, std::size_t size)> write;
};

// Reads one request and answers it: GET and HEAD by the handler, another method with 405, what is
// no request with 400 or not at all. Several threads may call it at once.
using http_answer_one = void(const http_bytes& peer, const http_handler& handler);

inline constexpr char HTTP_MODULE[] = "kessard_http.so";
inline constexpr char HTTP_SYMBOL[] = "kessard_http_answer_one"; // an http_answer_one

} // namespace agt
