// Row: throughput of the notifier.
#include <atomic>
#include <cstdint>

#include "rows.h"
#include "wire/frame.h"
#include "wire/text.h"

namespace bench {
namespace {

constexpr int ROUNDS = 21;
constexpr int MESSAGES = 4000; // of one sample
constexpr int RECORDS_PER_MESSAGE = 2;

// Puts records that a consumer sees all at once.
void fill(NOTI_SEND_QUE& queue, int records) {
    static_assert(MESSAGES * RECORDS_PER_MESSAGE < NOTI_SEND_QUE_SLOTS);
    std::atomic_ref<int> rear(queue.info.rear);
    int slot = rear.load();
    for (int i = 0; i < records; ++i) {
        slot = (slot + 1) % NOTI_SEND_QUE_SLOTS;
        kessctl::put_field(queue.data[slot].act_svc_dtl.service_id, 17, "SERVICE1");
    }
    rear.store(slot, std::memory_order_release);
}

// Answers so many messages; how many came in a second, counted from the first.
double answer_rate(int sockfd, int messages) {
    TCP_CMD_MSG message;
    const TCP_CMD_MSG answer = kessctl::start_frame(MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_RSP);
    double first_us = 0;
    for (int i = 0; i < messages; ++i) {
        if (!receive_all(sockfd, &message, sizeof message))
            return NAN;
        if (i == 0)
            first_us = now_us();
        if (i + 1 == messages)
            first_us = now_us() - first_us;
        if (!send_all(sockfd, &answer, sizeof answer))
            return NAN;
    }
    return (messages - 1) * 1e6 / first_us;
}

double notifier_rate(NOTI_SEND_QUE& queue, int sockfd) {
    fill(queue, MESSAGES * RECORDS_PER_MESSAGE);
    return answer_rate(sockfd, MESSAGES);
}

double bare_rate(int sockfd) {
    const std::uint32_t count = MESSAGES;
    return send_all(sockfd, &count, sizeof count) ? answer_rate(sockfd, MESSAGES) : NAN;
}

} // namespace

figures notify_row(running_agent& agent) {
    const bare_peer peer("ping");
    const agt::unique_fd bare = peer.connect();
    NOTI_SEND_QUE* queue = agent.program.noti_que();
    if (queue == nullptr)
        return {};
    fill(*queue, RECORDS_PER_MESSAGE); // the first message shows which connection the link is
    const central_server::arrival link = agent.server.take(MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ);
    const TCP_CMD_MSG answer = kessctl::start_frame(MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_RSP);
    send_all(link.sockfd.get(), &answer, sizeof answer);
    return {compare(
        {"notifications, 2 records each", "1/s", judged::ratio, 0.75, true}, ROUNDS,
        [&] { return notifier_rate(*queue, link.sockfd.get()); },
        [&] { return bare_rate(bare.get()); })};
}

} // namespace bench
