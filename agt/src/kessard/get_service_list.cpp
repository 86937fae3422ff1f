// Retrieval of the service list.
//
// A short-lived thread, one at a time: it connects, asks, and receives the list in blocks of up to
// eight services, each acknowledged; result code '5' marks the last. The table is emptied at the
// first valid answer and is locked from before the reception until after it; service filtering is
// off for everybody meanwhile, so that nothing is filtered against a half-loaded table. What was
// loaded stays when the server fails in the middle.
//
// `retrieving` is the "already running" mark. A failure to name the host or to send the request
// leaves it set for good: later starts are refused until the process restarts. That is the required
// behaviour in clear text. Over TLS, where a server that hangs up behind the handshake is met by
// the first thing sent, such a failure ends a retrieval like any other.
#include "get_service_list.h"

#include <algorithm>
#include <atomic>

#include "daemon_thread.h"
#include "field.h"
#include "log_printf.h"
#include "open_object.h"
#include "printable.h"
#include "process_globals.h"
#include "server_link.h"
#include "set_svc_hash_tbl.h"
#include "show_logs.h"
#include "state_file.h"
#include "tcp_base.h"
#include "tls.h"
#include "tran_logf_que_info.h"
#include "wait.h"

namespace kessard {
namespace {

constexpr char LAST_BLOCK = '5';
constexpr int LIST_LIMIT_SERVICES = 100000; // of a list that does not end
constexpr int LIST_LIMIT_SEC = 600;

constexpr exchange_texts TEXTS = {
    .not_sent = "<!> server send error.. slen : %d",
    .no_answer = "<!> server recv error.. rlen : %d",
    .no_magic = "<!> get_service_list->magic bit mismatch. sockfd : %d, rlen : %d"};

TCP_CMD_MSG s_msg;
TCP_CMD_MSG r_msg;
std::atomic<bool> retrieving{false};
daemon_thread th("get_service_list", get_service_list, "pthread_create error", STATE_RETRIEVAL,
                 RECV_TIMEOUT_SEC * 1000);

bool request_list(int conn_sockfd) {
    auto& body = s_msg.body.get_service_list_req;
    if (!put_host_name(body.host_name, sizeof body.host_name))
        return false;
    return send_request(conn_sockfd, MSG_GET_SERVICE_LIST_REQ, &s_msg, TEXTS);
}

// Services of the block.
int load_block() {
    const auto& block = r_msg.body.get_service_list_rsp;
    agt::log_line("(i) MSGRCV : [[ GET_SERVICE_LIST_RSP ]]");
    agt::log_line("(i) -> ELEMENT_NUM - '", agt::shown(block.element_num), "'");
    const int n = std::min(agt::get_number(block.element_num), int{SERVICE_ELEMENT_MAX});
    for (int i = 0; i < n; ++i)
        set_svc_hash_tbl(&block.elements[i]);
    return std::max(n, 0);
}

bool acknowledge(int conn_sockfd) {
    s_msg.body.get_service_list_rspack.result_code[0] = '0';
    return send_request(conn_sockfd, MSG_GET_SERVICE_LIST_RSPACK, &s_msg, TEXTS);
}

// Whether a list that has brought so many services since then may go on.
bool within_bounds(int services, long long start_ms) {
    const long long sec = (agt::monotonic_ms() - start_ms) / 1000;
    if (services <= LIST_LIMIT_SERVICES && sec <= LIST_LIMIT_SEC)
        return true;
    agt::log_printf("<!> service list does not end, given up. (services : %d, sec : %lld)",
                    services, sec);
    return false;
}

// Receives blocks until the last one, the first failure or the bounds. The services of a whole
// list; negative for one that is not.
int receive_list(int conn_sockfd) {
    const agt::log_batch lines; // leave when the server lets itself be waited for
    const long long start_ms = agt::monotonic_ms();
    int services = 0;
    for (bool first = true; !agt::saw_cancel() && receive_answer(conn_sockfd, &r_msg, TEXTS);
         first = false) {
        if (first)
            init_svc_hash_tbl();
        if (r_msg.hdr.msg_type[0] != MSG_GET_SERVICE_LIST_RSP)
            return -1;
        note_pass();
        services += load_block();
        if (!acknowledge(conn_sockfd))
            return -1;
        if (r_msg.body.get_service_list_rsp.result_code[0] == LAST_BLOCK)
            return services;
        if (!within_bounds(services, start_ms))
            return -1;
    }
    return -1;
}

// Reloads the table under its semaphore; a copy of what it holds then, null without memory for one.
// `*services` are those of a whole list, else negative.
svc_hash_tbl_copy reload_table(int conn_sockfd, int* services) {
    const object_lock lock(agt::SERVICE_TABLE, svc_hash_tbl_semid);
    if (lock.given_up())
        return nullptr;
    *services = receive_list(conn_sockfd);
    svc_hash_tbl_copy copy = copy_svc_hash_tbl(*svc_hash_tbl);
    if (copy == nullptr)
        agt::log_printf("<!> no memory for the dump of svc_hash_tbl");
    return copy;
}

void finish() {
    retrieving = false;
    agt::log_printf("### get_service_list() ### thread function END...");
}

} // namespace

void th_start_get_service_list() {
    if (retrieving.exchange(true)) {
        agt::log_printf("<!> get service list thread is already running now.. skip action .");
        return;
    }
    agt::log_printf("(i) get service list thread is starting..");
    if (!start_thread(th))
        retrieving = false;
}

void th_cancel_get_service_list() {
    if (retrieving)
        cancel_thread(th);
}

void th_join_get_service_list() {
    if (!retrieving) {
        th.join(JOIN_LIMIT_MS); // takes back one that ended by itself
        return;
    }
    const long_step waiting(LIST_LIMIT_SEC * 1000LL);
    // At the end of the daemon a retrieval may have been started after the others were cancelled.
    if (running == 0 || !th.wait_end())
        th.cancel();
    join_thread(th);
}

// A cancelled retrieval stays marked, so that it is joined, and does not say that it is at its end.
void* get_service_list(void*) {
    transfer_figures retrieval(figures->retrieval);
    const int conn_sockfd = connect_server();
    if (conn_sockfd < 0) {
        if (!agt::cancelled())
            finish();
        return nullptr;
    }
    if (!request_list(conn_sockfd)) {
        const bool ends = agt::tls_session_of(conn_sockfd) != nullptr && !agt::cancelled();
        agt::close_tcp_session(conn_sockfd);
        if (ends)
            finish();
        return nullptr;
    }
    const signed char filtering = get_svc_filtering();
    figure_set(figures->filter_switched_off, filtering);
    set_svc_filtering(0);
    agt::sleep_ms(1000);
    int services = -1;
    const svc_hash_tbl_copy loaded = reload_table(conn_sockfd, &services);
    set_svc_filtering(filtering);
    figure_set(figures->filter_switched_off, STATE_FILTER_NONE);
    if (services >= 0)
        retrieval.good(services);
    agt::close_tcp_session(conn_sockfd);
    if (agt::cancelled())
        return nullptr;
    if (loaded != nullptr)
        show_svc_hash_tbl(*loaded);
    finish();
    return nullptr;
}

} // namespace kessard
