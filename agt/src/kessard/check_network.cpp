// The notify link.
#include "check_network.h"

#include <cstdlib>

#include "daemon_thread.h"
#include "log_printf.h"
#include "process_globals.h"
#include "server_link.h"
#include "settings.h"
#include "tcp_base.h"
#include "wait.h"

namespace kessard {

std::atomic<int> noti_sockfd{-1};
std::atomic<int> noti_send_flag{0};
std::atomic<int> send_flag{0};
agt::mutex noti_socket_mutex;

namespace {

using agt::config_key_of;

constexpr int RETRY_SEC = 3;

daemon_thread th("check_network", check_network);

} // namespace

void network_off() {
    noti_send_flag = 0;
    agt::log_printf("<!> network error");
    agt::log_printf("<!> network error : send_flag off [%d]", send_flag.load());
    agt::log_printf("<!> network error : socket close");
}

void network_on() {
    noti_send_flag = 1;
    agt::log_printf("<!> network error : send_flag on [%d]", send_flag.load());
}

void close_noti_socket() {
    const agt::lock_guard guard(noti_socket_mutex);
    agt::close_tcp_session(noti_sockfd.exchange(-1));
}

int try_connect() {
    const agt::lock_guard guard(cfg_mutex);
    int active_limit = 0;
    std::string ipaddr;
    int port = 0;
    if (!read_cfg_number(config_key_of("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT"), &active_limit) ||
        active_limit <= 0 ||
        read_cfg(config_key_of("TRAN_SERVER", "IP_ADDRESS"), &ipaddr) != cfg_answer::found ||
        !read_cfg_number(config_key_of("TRAN_SERVER", "CMD_PORT"), &port))
        return -1;
    set_server_address(ipaddr.c_str(), port);
    noti_sockfd = init_tcp_client(ipaddr.c_str(), port);
    if (noti_sockfd < 0) {
        agt::log_printf("<!> server notify(cmd) port connect fail[ip %s, port %d]", ipaddr.c_str(),
                        port);
        return -1;
    }
    agt::log_printf("(i) successfully, notify(cmd) port connect [ip %s, port %d]", ipaddr.c_str(),
                    port);
    return 1;
}

void* check_network(void*) {
    while (keep_running()) {
        agt::log_printf("(i) check network, trying connect to notify(cmd) port...");
        close_noti_socket();
        if (try_connect() == 1) {
            agt::log_printf("(i) successfully connected to notify(cmd) port..");
            noti_send_flag = 1;
            return nullptr;
        }
        agt::log_printf("(i) check network, sleep... %d", RETRY_SEC);
        agt::sleep_ms(RETRY_SEC * 1000);
    }
    return nullptr;
}

void th_start_check_network() {
    agt::log_printf("[th_start_check_network] notify network connection check start...");
    if (!th.start())
        agt::log_printf("<!> pthread_create error.");
}

void th_cancel_check_network() {
    cancel_thread(th);
}

void th_join_check_network() {
    join_thread(th);
}

} // namespace kessard
