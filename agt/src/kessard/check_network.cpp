// The notify link.
//
// Three threads meet here. The main thread connects at start. The notifier alone sends on the
// socket, under noti_socket_mutex for a whole exchange, and after a failure only marks the link
// down (network_off). The watcher sees that within a second, closes the socket, which waits for an
// exchange to end, and connects anew until that succeeds; only it opens a socket, and only while
// the link is down, so nobody sends on a socket that is being replaced.
//
// The state is one enum, changed by compare-and-exchange: the watcher's start and a failure that
// the notifier meets at the same moment must not undo each other.
#include "check_network.h"

#include <atomic>

#include "daemon_thread.h"
#include "log_printf.h"
#include "process_globals.h"
#include "server_link.h"
#include "settings.h"
#include "state_file.h"
#include "tcp_base.h"
#include "util.h"
#include "wait.h"

namespace kessard {

agt::mutex noti_socket_mutex;

namespace {

using agt::config_key_of;

constexpr int RETRY_SEC = 3;
constexpr int LINK_POLL_SEC = 1;
constexpr int FIRST_RETRY_USEC = 10000;
constexpr int NEXT_RETRY_USEC = 999999;

enum class link_state {
    down,        // not up, and nobody watches it yet
    up_at_start, // connected at start, before the watcher runs
    up,
    lost,     // the watcher is to bring it back
    retrying, // its last attempt failed
};

std::atomic<int> sockfd{-1};
std::atomic<link_state> state{link_state::down};

daemon_thread net_th("network_check", network_checker, "<!> network pthread_create error.",
                     STATE_WATCHER, LINK_POLL_SEC * 1000);
daemon_thread th("check_network", check_network, "<!> pthread_create error.");

link_state when_up(link_state now) {
    const bool watched = now != link_state::down && now != link_state::up_at_start;
    return watched ? link_state::up : link_state::up_at_start;
}

link_state when_off(link_state now) {
    if (now == link_state::up_at_start)
        return link_state::down;
    return now == link_state::up ? link_state::lost : now;
}

link_state when_watched(link_state now) {
    if (now == link_state::down)
        return link_state::lost;
    return now == link_state::up_at_start ? link_state::up : now;
}

bool is_up(link_state now) {
    return now == link_state::up || now == link_state::up_at_start;
}

void tell_link(bool up) {
    figure_now(figures->link_since_ms);
    figure_set(figures->link_up, up ? 1 : 0);
}

void change_state(link_state (*next)(link_state)) {
    link_state now = state;
    while (!state.compare_exchange_weak(now, next(now)))
        continue;
    if (is_up(now) != is_up(next(now)))
        tell_link(is_up(next(now)));
}

// Tries to bring the link back; the microseconds to wait before the next try.
int reconnect() {
    close_noti_socket();
    if (try_connect() != 1) {
        state = link_state::retrying;
        return NEXT_RETRY_USEC;
    }
    figure_add(figures->link_reconnections);
    agt::log_printf("(I) notify socket reconnect success");
    network_on();
    return FIRST_RETRY_USEC;
}

} // namespace

int noti_send_flag() {
    return is_up(state) ? 1 : 0;
}

int send_flag() {
    switch (state.load()) {
    case link_state::down:
    case link_state::up_at_start:
        return 0;
    case link_state::up:
    case link_state::lost:
        return 1;
    case link_state::retrying:
        return 2;
    }
    return 0;
}

int noti_sockfd() {
    return sockfd;
}

void open_noti_link(int active_limit) {
    if (active_limit <= 0) {
        agt::log_printf("(I) Active Service Detail Monitoring OFF.(%dms)", active_limit);
        return;
    }
    agt::log_printf("(I) Active Service Detail Monitoring ON.(%dms)", active_limit);
    figure_set(figures->link_wanted, 1);
    tell_link(false);
    const server_address server = get_server_address();
    sockfd = init_tcp_client(server.srv_ipaddr, server.srv_cmd_port);
    if (sockfd < 0 && agt::cancelled())
        return;
    if (sockfd < 0) {
        agt::log_printf("<!> server notify(cmd) port connect fail(ip : %s, port : %d)",
                        server.srv_ipaddr, server.srv_cmd_port);
        network_off();
        return;
    }
    change_state(when_up);
    agt::log_printf("(I) server notify(cmd) port connect ok!(ip : %s, port: %d)", server.srv_ipaddr,
                    server.srv_cmd_port);
}

void network_off() {
    change_state(when_off);
    agt::log_printf("<!> network error");
    agt::log_printf("<!> network error : send_flag off [%d]", send_flag());
    agt::log_printf("<!> network error : socket close");
}

// The line shows how the link stood before: 2 behind a failed attempt.
void network_on() {
    const int shown = send_flag();
    change_state(when_up);
    agt::log_printf("<!> network error : send_flag on [%d]", shown);
}

void close_noti_socket() {
    const agt::lock_guard guard(noti_socket_mutex);
    agt::close_tcp_session(sockfd.exchange(-1));
}

int try_connect() {
    const agt::lock_guard guard(cfg_mutex);
    int active_limit = 0;
    std::string ipaddr;
    int port = 0;
    if (!read_cfg_number(config_key_of("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT"), &active_limit))
        return -1;
    figure_set(figures->link_wanted, active_limit > 0 ? 1 : 0);
    if (active_limit <= 0 ||
        read_cfg(config_key_of("TRAN_SERVER", "IP_ADDRESS"), &ipaddr) != cfg_answer::found ||
        !read_cfg_number(config_key_of("TRAN_SERVER", "CMD_PORT"), &port))
        return -1;
    set_server_address(ipaddr.c_str(), port);
    sockfd = init_tcp_client(ipaddr.c_str(), port);
    if (sockfd < 0) {
        if (!agt::cancelled())
            agt::log_printf("<!> server notify(cmd) port connect fail[ip %s, port %d]",
                            ipaddr.c_str(), port);
        return -1;
    }
    agt::log_printf("(i) successfully, notify(cmd) port connect [ip %s, port %d]", ipaddr.c_str(),
                    port);
    return 1;
}

void network_check() {
    start_thread(net_th);
}

void stop_network_check() {
    stop_thread(net_th);
}

void* network_checker(void*) {
    change_state(when_watched);
    int retry_usec = FIRST_RETRY_USEC;
    while (keep_running()) {
        note_pass();
        if (noti_send_flag() != 0) {
            agt::set_idle(LINK_POLL_SEC, 0);
            continue;
        }
        agt::set_idle(0, retry_usec);
        if (keep_running())
            retry_usec = reconnect();
    }
    close_noti_socket();
    return nullptr;
}

void* check_network(void*) {
    while (keep_running()) {
        agt::log_printf("(i) check network, trying connect to notify(cmd) port...");
        close_noti_socket();
        if (try_connect() == 1) {
            agt::log_printf("(i) successfully connected to notify(cmd) port..");
            change_state(when_up);
            return nullptr;
        }
        agt::log_printf("(i) check network, sleep... %d", RETRY_SEC);
        agt::sleep_ms(RETRY_SEC * 1000);
    }
    return nullptr;
}

void th_start_check_network() {
    agt::log_printf("[th_start_check_network] notify network connection check start...");
    start_thread(th);
}

void th_cancel_check_network() {
    cancel_thread(th);
}

void th_join_check_network() {
    join_thread(th);
}

} // namespace kessard
