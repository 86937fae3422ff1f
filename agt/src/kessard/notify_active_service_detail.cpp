// The notifier.
//
// The only consumer of the notification queue, polling it every 20 ms when it is empty. Two records
// make a message; a lone record waits until 2 whole seconds have passed since the last message left
// (not since the record came), so after a quiet period it leaves at the first empty poll. While the
// link is down records are taken and dropped, one every 200 ms. A failure takes the link down
// (network_off) and the watcher brings it back.
#include "notify_active_service_detail.h"

#include <sys/prctl.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "check_network.h"
#include "daemon_thread.h"
#include "kessard/cmd_msg.h"
#include "log_printf.h"
#include "noti_send_que.h"
#include "process_globals.h"
#include "server_link.h"
#include "state_file.h"
#include "util.h"
#include "wait.h"

namespace kessard {
namespace {

constexpr int EMPTY_POLL_USEC = 20000;
constexpr unsigned long SLACK_NS = 4000000; // by which the system may put a wake-up off, to others
constexpr int LINK_DOWN_USEC = 200000;
constexpr long FLUSH_SEC = 2;
constexpr exchange_texts TEXTS = {.not_sent = "<!> noti_sockfd, send_tcp_data error. slen : %d",
                                  .no_answer = "<!> noti_sockfd, recv_tcp_data error. rlen : %d",
                                  .late = "<!> noti_sockfd, recv_tcp_data timeout error."};
constexpr exchange_texts FLUSH_TEXTS = {
    .not_sent = TEXTS.not_sent,
    .no_answer = "<!> noti_sockfd, recv_tcp_data error. rlen : %d(FLUSH)",
    .late = "<!> noti_sockfd, recv_tcp_data timeout error.(FLUSH)"};

TCP_CMD_MSG s_msg;
TCP_CMD_MSG r_msg;
daemon_thread th("notify_active_service_detail", notify_active_service_detail,
                 "pthread_create error", STATE_NOTIFIER, LINK_DOWN_USEC / 1000);

struct batch {
    int pending = 0;     // records in s_msg
    long batch_time = 0; // when the last message left, 0 before the first record
};

// Seconds of a clock that never steps; never 0.
long now_sec() {
    return static_cast<long>(agt::monotonic_ms() / 1000) + 1;
}

void drop(int records) {
    figure_add(figures->notifications_dropped, records);
}

// Sends the pending records and waits for the answer, whose content does not matter; a failure of
// either takes the link down. False when they could not be sent, and at the end of the daemon.
bool send_batch(int pending, const exchange_texts& texts) {
    const agt::lock_guard guard(noti_socket_mutex);
    auto& body = s_msg.body.notify_active_service_detail_req;
    std::snprintf(body.element_num, sizeof body.element_num, "%0*d", 3, pending);
    const exchange_result result =
        exchange(noti_sockfd(), MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ, &s_msg, &r_msg, texts);
    if (result == exchange_result::answered) {
        figure_add(figures->notifications_sent, pending);
        return true;
    }
    if (agt::cancelled())
        return false;
    network_off();
    if (result == exchange_result::not_answered)
        drop(pending);
    return result == exchange_result::not_answered;
}

void send_full(batch* out) {
    const int pending = std::exchange(out->pending, 0);
    agt::log_printf("[notify_active_service_detail] socket send : %d elements, "
                    "ACTIVE_SERVICE_DETAIL size %d bytes",
                    pending, static_cast<int>(sizeof(ACTIVE_SERVICE_DETAIL)));
    if (noti_send_flag() != 1) {
        drop(pending);
    } else if (!send_batch(pending, TEXTS)) {
        drop(pending);
        return;
    }
    agt::log_printf("(I) [notify_active_service_detail] sent %d elements, noti_send_flag : %d",
                    pending, noti_send_flag());
    out->batch_time = now_sec();
}

void take_record(batch* out, const NOTI_SEND_QUE_DATA& record) {
    if (noti_send_flag() == 0) {
        drop(1);
        agt::flush_log();
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

// The index is the tracers' to mend, so it is only named, once.
void look_at_queue() {
    static bool sound = true;
    const bool was_sound = std::exchange(sound, noti_send_que_sound());
    if (was_sound && !sound)
        agt::log_printf(
            "<!> noti_send_que rear is out of range, nothing is delivered until it is not.");
}

// A failure to send leaves the records pending; the next attempt finds the link down and drops
// them.
void flush(batch* out) {
    const long flush_time = now_sec() - out->batch_time;
    if (out->pending == 0 || flush_time < FLUSH_SEC)
        return;
    if (noti_send_flag() == 1) {
        if (!send_batch(out->pending, FLUSH_TEXTS))
            return;
        agt::log_printf("(I) [notify_active_service_detail] flush sent %d elements, noti_send_flag "
                        ": %d, flush_time(%d sec)",
                        out->pending, noti_send_flag(), static_cast<int>(flush_time));
    } else {
        drop(out->pending);
        agt::log_printf("<!> [notify_active_service_detail] flush skip, noti_send_flag : %d",
                        noti_send_flag());
    }
    out->batch_time = now_sec();
    out->pending = 0;
}

} // namespace

void th_start_notify_active_service_detail() {
    start_thread(th);
}

void th_cancel_notify_active_service_detail() {
    cancel_thread(th);
}

void th_join_notify_active_service_detail() {
    join_thread(th);
}

void stop_notify_active_service_detail() {
    stop_thread(th);
}

void* notify_active_service_detail(void*) {
    agt::log_printf("(i) notify_active_service_detail thread start... running : %d",
                    running.load());
    prctl(PR_SET_TIMERSLACK, SLACK_NS);
    const agt::log_batch lines; // empty whenever the thread waits for long
    batch out;
    while (running != 0) {
        note_pass();
        const NOTI_SEND_QUE_DATA* record = get_noti_send_que();
        if (record != nullptr) {
            take_record(&out, *record);
            continue;
        }
        agt::flush_log();
        if (agt::saw_cancel())
            break;
        look_at_queue();
        agt::set_idle(0, EMPTY_POLL_USEC);
        flush(&out);
    }
    return nullptr;
}

} // namespace kessard
