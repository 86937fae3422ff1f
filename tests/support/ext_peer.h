// The server's side of an extended request, byte by byte.
#pragma once

#include <poll.h>

#include "checks.h"
#include "server/command_client.h"

namespace test_support {

inline std::string on_wire(std::int64_t value) {
    const std::uint32_t number = htonl(static_cast<std::uint32_t>(value));
    return {reinterpret_cast<const char*>(&number), sizeof number};
}

// An answer: its header, then the bytes that the header counts.
inline std::string ext_answer(char status, const std::string& body) {
    std::string host = host_name();
    host.resize(64);
    return std::string("\x90\x85\x20\x83") + status + host +
           on_wire(static_cast<std::int64_t>(body.size())) + body;
}

inline std::string ext_items(const texts& of) {
    std::string joined;
    for (const std::string& item : of)
        joined += (&item == &of[0] ? "" : "\x1f") + item;
    return joined;
}

struct ext_peer {
    explicit ext_peer(const agent& a) {
        EXPECT_TRUE(client.connect("127.0.0.1", a.port())) << client.error();
    }
    ext_peer(const agent& a, const std::string& request) : ext_peer(a) { ask(request); }

    // The request is its code, the kind 'R' and its items.
    void ask(const std::string& request) {
        std::string frame = "\x90\x85\x20\x83\x02" + request;
        frame.resize(TCP_CMD_MSG_SIZE);
        send(frame);
    }
    void send(const std::string& bytes) {
        EXPECT_TRUE(client.send_bytes(bytes.data(), bytes.size())) << client.error();
    }
    // Everything that comes until the agent closes the connection, or `most` bytes.
    std::string receive(std::size_t most = SIZE_MAX) const {
        std::string all;
        char piece[65536];
        ssize_t got = 1;
        while (got > 0 && all.size() < most &&
               agt::wait_fd(client.fd(), POLLIN, LIMIT_MS) == agt::wait_result::ready) {
            got = read(client.fd(), piece, std::min(sizeof piece, most - all.size()));
            all.append(piece, got > 0 ? static_cast<std::size_t>(got) : 0);
        }
        return all;
    }

    kessctl::command_client client;
};

inline std::string ask_ext(const agent& a, const std::string& request) {
    return ext_peer(a, request).receive();
}

} // namespace test_support
