// The fixture of most tests.
#include "served_agent.h"

#include <sys/socket.h>

namespace test_support {

std::vector<SERVICE_ELEMENT> services(int count) {
    std::vector<SERVICE_ELEMENT> made;
    for (int i = 0; i < count; ++i)
        made.push_back(kessctl::make_service("SERVICE" + std::to_string(i)));
    return made;
}

bool answers(const agent& a, const TCP_CMD_MSG& request, TCP_CMD_MSG* answer) {
    kessctl::command_client client;
    TCP_CMD_MSG unused;
    return client.connect("127.0.0.1", a.port()) &&
           client.request(request, answer == nullptr ? &unused : answer);
}

void reset_at_close(int sockfd) {
    const linger at_once = {1, 0};
    setsockopt(sockfd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

served_agent::served_agent() {
    EXPECT_EQ(server.start("127.0.0.1", a.server_port()),
              ""); // nobody takes the port while the server is away
}

void served_agent::start(const texts& options) {
    a.mark_log();
    server.forget_messages();
    start_running(a, options);
    EXPECT_TRUE(a.wait_log(THREAD_END) && server.wait_for(MSG_DEVICE_INFO_REQ));
    reconnect();
}

void served_agent::reconnect() {
    ASSERT_TRUE(client.connect("127.0.0.1", a.port())) << client.error();
}

void served_agent::set_fault(char type, const kessctl::answer_fault& fault) {
    server.change([&](kessctl::stand_in_options& options) { options.faults[type] = fault; });
}

} // namespace test_support
