// An agent, the server that it reports to, and a client of its command port.
#pragma once

#include "checks.h"
#include "server/command_client.h"
#include "server/service_file.h"
#include "server/stand_in.h"
#include "wire/frame.h"

namespace test_support {

// Of a retrieval.
inline constexpr char THREAD_END[] = "### get_service_list() ### thread function END...";

inline constexpr char COMPLETE[] = "[ kessard ] end.. complete.";
inline constexpr int END_LIMIT_MS = 8000;

// So many services: SERVICE0, SERVICE1, ...
inline std::vector<SERVICE_ELEMENT> services(int count) {
    std::vector<SERVICE_ELEMENT> made;
    for (int i = 0; i < count; ++i)
        made.push_back(kessctl::make_service("SERVICE" + std::to_string(i)));
    return made;
}

// Whether a client of its own gets an answer.
inline bool answers(const agent& a, const TCP_CMD_MSG& request = kessctl::start_frame('7'),
                    TCP_CMD_MSG* answer = nullptr) {
    kessctl::command_client client;
    TCP_CMD_MSG unused;
    return client.connect("127.0.0.1", a.port()) &&
           client.request(request, answer == nullptr ? &unused : answer);
}

class served_agent : public testing::Test {
  protected:
    kessctl::stand_in server;
    agent a; // configured for the server
    kessctl::command_client client;
    TCP_CMD_MSG answer{}; // the last that the client got

    // On a port that nobody takes while the server is away.
    served_agent() { EXPECT_EQ(server.start("127.0.0.1", a.server_port()), ""); }
    // Starts the agent, waits for the first retrieval and the device information, and connects.
    void start(const texts& options = {}) {
        a.mark_log();
        server.forget_messages();
        start_running(a, options);
        EXPECT_TRUE(a.wait_log(THREAD_END) && server.wait_for(MSG_DEVICE_INFO_REQ));
        reconnect();
    }
    void reconnect() { ASSERT_TRUE(client.connect("127.0.0.1", a.port())) << client.error(); }
    bool ask(const TCP_CMD_MSG& request) { return client.request(request, &answer); }
    bool renew() { return ask(kessctl::start_frame(MSG_RENEW_SERVICE_LIST_REQ)); }
    // Ends the agent, which must succeed in order and soon.
    void expect_end(int signo = SIGTERM) {
        a.signal(signo);
        EXPECT_EQ(a.wait_exit(END_LIMIT_MS), 0);
        EXPECT_EQ(messages(a.log()).back(), COMPLETE);
        EXPECT_EQ(a.count_log("<!> cannot"), 0u);
    }
    // What goes wrong with the answers to a type of message, from now on.
    void set_fault(char type, const kessctl::answer_fault& fault) {
        server.change([&](auto& options) { options.faults[type] = fault; });
    }
};

} // namespace test_support
