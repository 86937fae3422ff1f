// An agent, the server that it reports to, and a client of its command port: where most tests of
// the program begin.
#pragma once

#include <gtest/gtest.h>

#include "checks.h"
#include "server/command_client.h"
#include "server/service_file.h"
#include "server/stand_in.h"
#include "wire/frame.h"

namespace test_support {

inline constexpr char THREAD_END[] =
    "### get_service_list() ### thread function END..."; // of a retrieval

// So many services: SERVICE0, SERVICE1, ...
std::vector<SERVICE_ELEMENT> services(int count);

// Whether a client of its own gets an answer.
bool answers(const agent& a,
             const TCP_CMD_MSG& request = kessctl::start_frame(MSG_SET_SYS_CONFIG_SET_REQ),
             TCP_CMD_MSG* answer = nullptr);

// Makes a socket's close a reset.
void reset_at_close(int sockfd);

class served_agent : public testing::Test {
  protected:
    kessctl::stand_in server;
    agent a; // configured for the server
    kessctl::command_client client;
    TCP_CMD_MSG answer{}; // the last that the client got

    served_agent();
    // Starts the agent; the first retrieval and the device information are over then, and the
    // client is connected.
    void start(const texts& options = {});
    void reconnect();
    bool ask(const TCP_CMD_MSG& request) { return client.request(request, &answer); }
    bool renew() { return ask(kessctl::start_frame(MSG_RENEW_SERVICE_LIST_REQ)); }
    // What goes wrong with the answers to a type of message, from now on.
    void set_fault(char type, const kessctl::answer_fault& fault);
};

} // namespace test_support
