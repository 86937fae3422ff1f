// Rows: a settings request, five of them at once, a remote command.
#include <cstdint>

#include "rows.h"
#include "server/ext_client.h"
#include "settings_request.h"
#include "wire/frame.h"

namespace bench {
namespace {

constexpr int ROUNDS = 101;
constexpr int EXCHANGES = 200; // of one sample
constexpr int CLIENTS = 5;     // as many as the bare program waits for
constexpr int COMMAND_ROUNDS = 301;
constexpr std::size_t ANSWER_BYTES =
    sizeof(EXT_RSP_HDR) + 8 + 2; // exit code, length, "a" and a newline

double remote_command_us(const running_agent& agent, const TCP_CMD_MSG& request) {
    char answer[ANSWER_BYTES];
    const double start_us = now_us();
    const agt::unique_fd sockfd = agent.connect();
    const bool whole = send_all(sockfd.get(), &request, sizeof request) &&
                       receive_all(sockfd.get(), answer, sizeof answer) &&
                       answer[ANSWER_BYTES - 2] == 'a';
    return whole ? now_us() - start_us : NAN;
}

// The bare program reports the time itself.
double shell_us(int sockfd) {
    std::uint64_t took_ns = 0;
    const bool whole = send_all(sockfd, "", 1) && receive_all(sockfd, &took_ns, sizeof took_ns);
    return whole ? static_cast<double>(took_ns) / 1e3 : NAN;
}

figures remote_command(const figure& of, const running_agent& agent) {
    const bare_peer peer("shell");
    const agt::unique_fd bare = peer.connect();
    const TCP_CMD_MSG request = kessctl::ext_frame({EXT_SVC_CMD, "echo a", 0, 1});
    return {compare(
        of, COMMAND_ROUNDS, [&] { return remote_command_us(agent, request); },
        [&] { return shell_us(bare.get()); })};
}

} // namespace

figures command_row(running_agent& agent) {
    const bare_peer peer("echo");
    const agt::unique_fd bare = peer.connect();
    const agt::unique_fd own = agent.connect();
    const TCP_CMD_MSG request = settings_request();
    return {compare(
        {"settings request and answer", "us", judged::ratio, 1.5}, ROUNDS,
        [&] { return exchange_us({own.get()}, &request, EXCHANGES); },
        [&] { return exchange_us({bare.get()}, &request, EXCHANGES); })};
}

figures clients_row(running_agent& agent) {
    const bare_peer peer("crowd");
    std::vector<agt::unique_fd> open;
    std::vector<int> bare;
    std::vector<int> own;
    for (int i = 0; i < CLIENTS; ++i) {
        bare.push_back(open.emplace_back(peer.connect()).get());
        own.push_back(open.emplace_back(agent.connect()).get());
    }
    const TCP_CMD_MSG request = settings_request();
    return {compare(
        {"the same, five clients at once, each", "us", judged::ratio, 2}, ROUNDS,
        [&] { return exchange_us(own, &request, EXCHANGES / CLIENTS); },
        [&] { return exchange_us(bare, &request, EXCHANGES / CLIENTS); })};
}

figures exec_row(running_agent& agent) {
    return remote_command({"remote command 'echo a'", "us", judged::ratio, 1.5}, agent);
}

figures exec_apart_row(running_agent& agent) {
    return remote_command({"the same on all processors", "us", judged::ratio, 1.5}, agent);
}

} // namespace bench
