// Row: a load of the service table, the dump to the log included.
#include "rows.h"
#include "server/service_file.h"
#include "wire/frame.h"

namespace bench {
namespace {

constexpr int ROUNDS = 7;
constexpr int SERVICES = 10000;
constexpr double PRESCRIBED_SLEEP_US = 1e6; // between the request and the first block read

using blocks = std::vector<TCP_CMD_MSG>;

blocks make_blocks() {
    std::vector<SERVICE_ELEMENT> services;
    for (int i = 0; i < SERVICES; ++i)
        services.push_back(kessctl::make_service("SERVICE" + std::to_string(i)));
    blocks list;
    for (std::size_t at = 0; at < services.size(); at += SERVICE_ELEMENT_MAX)
        list.push_back(kessctl::service_block_frame(&services[at], SERVICE_ELEMENT_MAX,
                                                    at + SERVICE_ELEMENT_MAX >= services.size()));
    return list;
}

bool send_list(int sockfd, const blocks& list) {
    TCP_CMD_MSG acknowledgement;
    for (const TCP_CMD_MSG& block : list)
        if (!send_all(sockfd, &block, sizeof block) ||
            !receive_all(sockfd, &acknowledgement, sizeof acknowledgement))
            return false;
    return true;
}

// From the daemon's request for the list to the last line about it in the log, without the
// prescribed sleep.
double load_us(running_agent& agent, const blocks& list) {
    log_end log(agent.program);
    const TCP_CMD_MSG renew = kessctl::start_frame(MSG_RENEW_SERVICE_LIST_REQ);
    exchange_us({agent.connect().get()}, &renew, 1);
    const central_server::arrival asked = agent.server.take(MSG_GET_SERVICE_LIST_REQ);
    if (!send_list(asked.sockfd.get(), list))
        return NAN;
    return log.wait_us("### get_service_list() ### thread function END...") - asked.at_us -
           PRESCRIBED_SLEEP_US;
}

double bare_us(int sockfd, const blocks& list) {
    const double start_us = now_us();
    return send_list(sockfd, list) ? now_us() - start_us : NAN;
}

} // namespace

figures services_row(running_agent& agent) {
    const bare_peer peer("echo");
    const agt::unique_fd bare = peer.connect();
    const blocks list = make_blocks();
    return {compare(
        {"load of 10,000 services", "us", judged::ratio, 5}, ROUNDS,
        [&] { return load_us(agent, list); }, [&] { return bare_us(bare.get(), list); })};
}

} // namespace bench
