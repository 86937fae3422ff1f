// The notifier.
//
// The only consumer of the notification queue, polling it every 20 ms when it is empty. Two records
// make a message; a lone record waits until 2 whole seconds have passed since the last message left
// (not since the record came), so after a quiet period it leaves at the first empty poll. While the
// link is down records are taken and dropped, one every 200 ms. A failure takes the link down
// (network_off) and the watcher brings it back.
#include "notify_active_service_detail.h"

#include <poll.h>

#include <cstdio>
#include <cstring>
#include <mutex>

#include "check_network.h"
#include "daemon_thread.h"
#include "kessard/cmd_msg.h"
#include "log_printf.h"
#include "noti_send_que.h"
#include "process_globals.h"
#include "server_link.h"
#include "tcp_base.h"
#include "util.h"
#include "wait.h"

namespace kessard {
namespace {

constexpr int EMPTY_POLL_USEC = 20000;
constexpr int LINK_DOWN_USEC = 200000;
constexpr long FLUSH_SEC = 2;
constexpr int ANSWER_SOON_MS = 20;

TCP_CMD_MSG s_msg;
TCP_CMD_MSG r_msg;
daemon_thread th("notify_active_service_detail", notify_active_service_detail);

struct batch {
    int pending = 0;     // records in s_msg
    long batch_time = 0; // when the last message left, 0 before the first record
    agt::log_batch log;  // empty whenever the thread waits for long
};

// Seconds of a clock that never steps; never 0.
long now_sec() {
    return static_cast<long>(agt::monotonic_ms() / 1000) + 1;
}

void take_link_down(batch* out) {
    out->log.flush();
    network_off();
}

// Waits for the answer, whose content does not matter; a failure takes the link down. `where` ends
// the log line. The lines of a busy queue leave the process many at a time, unless the server lets
// itself be waited for.
void receive_answer(batch* out, const char* where) {
    if (agt::wait_fd(noti_sockfd, POLLIN, ANSWER_SOON_MS) != agt::wait_result::ready)
        out->log.flush();
    const int rlen = agt::recv_tcp_data_ready(noti_sockfd, &r_msg, sizeof r_msg, RECV_TIMEOUT_SEC);
    if (rlen >= 1)
        return;
    if (rlen == -2)
        out->log.printf("<!> noti_sockfd, recv_tcp_data timeout error.%s", where);
    else
        out->log.printf("<!> noti_sockfd, recv_tcp_data error. rlen : %d%s", rlen, where);
    take_link_down(out);
}

// Sends the pending records; false when they could not be sent, with the link down.
bool send_batch(batch* out, int pending, const char* where) {
    const agt::lock_guard guard(noti_socket_mutex);
    auto& body = s_msg.body.notify_active_service_detail_req;
    set_header(&s_msg, MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ);
    std::snprintf(body.element_num, sizeof body.element_num, "%0*d", 3, pending);
    const int slen = send_msg(noti_sockfd, s_msg);
    if (slen >= 1) {
        receive_answer(out, where);
        return true;
    }
    out->log.printf("<!> noti_sockfd, send_tcp_data error. slen : %d", slen);
    take_link_down(out);
    return false;
}

void send_full(batch* out) {
    const int pending = out->pending;
    out->log.printf("[notify_active_service_detail] socket send : %d elements, "
                    "ACTIVE_SERVICE_DETAIL size %d bytes",
                    pending, static_cast<int>(sizeof(ACTIVE_SERVICE_DETAIL)));
    out->pending = 0;
    if (noti_send_flag == 1 && !send_batch(out, pending, ""))
        return;
    out->log.printf("(I) [notify_active_service_detail] sent %d elements, noti_send_flag : %d",
                    pending, noti_send_flag.load());
    out->batch_time = now_sec();
}

void take_record(batch* out, const NOTI_SEND_QUE_DATA& record) {
    if (noti_send_flag == 0) {
        out->log.flush();
        agt::set_idle(0, LINK_DOWN_USEC);
        return;
    }
    if (out->batch_time == 0)
        out->batch_time = now_sec();
    auto& elements = s_msg.body.notify_active_service_detail_req.elements;
    std::memcpy(&elements[out->pending++], &record, sizeof record);
    if (out->pending == NOTIFY_ELEMENT_MAX)
        send_full(out);
}

// A failure to send leaves the records pending; the next attempt finds the link down and drops
// them.
void flush(batch* out) {
    const long flush_time = now_sec() - out->batch_time;
    if (out->pending == 0 || flush_time < FLUSH_SEC)
        return;
    if (noti_send_flag == 1) {
        if (!send_batch(out, out->pending, "(FLUSH)"))
            return;
        agt::log_printf("(I) [notify_active_service_detail] flush sent %d elements, noti_send_flag "
                        ": %d, flush_time(%d sec)",
                        out->pending, noti_send_flag.load(), static_cast<int>(flush_time));
    } else {
        agt::log_printf("<!> [notify_active_service_detail] flush skip, noti_send_flag : %d",
                        noti_send_flag.load());
    }
    out->batch_time = now_sec();
    out->pending = 0;
}

} // namespace

void th_start_notify_active_service_detail() {
    if (!th.start())
        agt::log_printf("pthread_create error");
}

void th_cancel_notify_active_service_detail() {
    cancel_thread(th);
}

void th_join_notify_active_service_detail() {
    join_thread(th);
}

void stop_notify_active_service_detail() {
    th.cancel();
    th.join(JOIN_LIMIT_MS);
}

void* notify_active_service_detail(void*) {
    agt::log_printf("(i) notify_active_service_detail thread start... running : %d",
                    running.load());
    batch out;
    while (running != 0) {
        const NOTI_SEND_QUE_DATA* record = get_noti_send_que();
        if (record != nullptr) {
            take_record(&out, *record);
            continue;
        }
        out.log.flush();
        if (agt::cancelled())
            break;
        agt::set_idle(0, EMPTY_POLL_USEC);
        flush(&out);
    }
    return nullptr;
}

} // namespace kessard
