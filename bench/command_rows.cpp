// Rows: a settings request, a remote command.
#include <cmath>
#include <cstdint>

#include "ext_client.h"
#include "frame.h"
#include "rows.h"

namespace bench {
namespace {

constexpr int ROUNDS = 101;
constexpr int EXCHANGES = 200; // of one sample
constexpr int COMMAND_ROUNDS = 301;
constexpr std::size_t ANSWER_BYTES = sizeof(EXT_RSP_HDR) + 8 + 2; // exit code, length, "a" and a newline

TCP_CMD_MSG settings_request() {
    TCP_CMD_MSG request = kessctl::start_frame(MSG_SET_SYS_CONFIG_SET_REQ);
    BODY_SET_SYS_CONFIG_SET_REQ& body = request.body.set_sys_config_set_req;
    kessctl::put_field(body.ipaddr, sizeof body.ipaddr, "127.0.0.1");
    kessctl::put_field(body.log_flag_set, sizeof body.log_flag_set, "SEVBCIXQ");
    kessctl::put_field(body.log_qcnt, sizeof body.log_qcnt, "8");
    kessctl::put_field(body.log_onoff, sizeof body.log_onoff, "1");
    kessctl::put_field(body.sfilter_onoff, sizeof body.sfilter_onoff, "0");
    kessctl::put_field(body.call_trc_depth, sizeof body.call_trc_depth, "100");
    kessctl::put_field(body.call_trc_limit, sizeof body.call_trc_limit, "1000");
    kessctl::put_field(body.dbio_trc_limit, sizeof body.dbio_trc_limit, "1000");
    kessctl::put_field(body.sql_trc_limit, sizeof body.sql_trc_limit, "1000");
    return request;
}

double remote_command_us(const running_agent& agent, const TCP_CMD_MSG& request) {
    char answer[ANSWER_BYTES];
    const double start_us = now_us();
    const agt::unique_fd sockfd = agent.connect();
    const bool whole = send_all(sockfd.get(), &request, sizeof request) &&
                       receive_all(sockfd.get(), answer, sizeof answer) && answer[ANSWER_BYTES - 2] == 'a';
    return whole ? now_us() - start_us : NAN;
}

// The bare program reports the time itself.
double shell_us(int sockfd) {
    std::uint64_t took_ns = 0;
    const bool whole = send_all(sockfd, "", 1) && receive_all(sockfd, &took_ns, sizeof took_ns);
    return whole ? static_cast<double>(took_ns) / 1e3 : NAN;
}

} // namespace

figures command_row(running_agent& agent) {
    const bare_peer peer("echo");
    const agt::unique_fd bare = peer.connect();
    const agt::unique_fd own = agent.connect();
    const TCP_CMD_MSG request = settings_request();
    return {compare(
        {"'7' request and answer", "us", 0, 0, 0, 1.5, false}, ROUNDS,
        [&] { return exchange_us(own.get(), &request, EXCHANGES); },
        [&] { return exchange_us(bare.get(), &request, EXCHANGES); })};
}

figures exec_row(running_agent& agent) {
    const bare_peer peer("shell");
    const agt::unique_fd bare = peer.connect();
    const TCP_CMD_MSG request = kessctl::ext_frame({EXT_SVC_CMD, "echo a", 0, 1});
    return {compare(
        {"remote command 'echo a'", "us", 0, 0, 0, 1.5, false}, COMMAND_ROUNDS,
        [&] { return remote_command_us(agent, request); }, [&] { return shell_us(bare.get()); })};
}

} // namespace bench
