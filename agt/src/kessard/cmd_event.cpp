// The command dispatcher.
//
// A table leads from the type code to a handler, which carries the request of `r_msg` out and sets
// what it answers in `s_msg`; receiving, sending and the log lines around them are the same for
// all. The two buffers live as long as the process and are never cleared: behind the fields that a
// handler sets, an answer carries what earlier ones left.
#include "cmd_event.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "access_control.h"
#include "check_network.h"
#include "ext_request.h"
#include "field.h"
#include "get_service_list.h"
#include "health_check.h"
#include "kessard/cmd_msg.h"
#include "kessard/tran_logf_que_info.h"
#include "log_printf.h"
#include "open_object.h"
#include "server_link.h"
#include "set_svc_hash_tbl.h"
#include "shared_field.h"
#include "subprocess.h"
#include "tcp_base.h"
#include "tran_agt.h"
#include "tran_logf_que_info.h"
#include "wait.h"

namespace kessard {
namespace {

TCP_CMD_MSG r_msg;
TCP_CMD_MSG s_msg;

// The last byte of every text field of a request becomes its terminator, whatever the sender put
// there.
template <std::size_t N> const char* terminate(char (&field)[N]) {
    field[N - 1] = '\0';
    return field;
}

void renew_service_list(agt::log_batch&) {
    s_msg.body.renew_service_list_rsp.result_code[0] = '0';
}

void log_config(agt::log_batch& log, BODY_SET_SYS_CONFIG_SET_REQ& body) {
    log.line({"(i) -> IPADDR         - '", terminate(body.ipaddr), "'"});
    log.line({"(i) -> LOG_FLAG_SET   - '", terminate(body.log_flag_set), "'"});
    log.line({"(i) -> LOG_QCNT       - '", terminate(body.log_qcnt), "'"});
    log.line({"(i) -> LOG_ONOFF      - '", terminate(body.log_onoff), "'"});
    log.line({"(i) -> SFILTER_ONOFF  - '", terminate(body.sfilter_onoff), "'"});
    log.line({"(i) -> CALL_TRC_DEPTH - '", terminate(body.call_trc_depth), "'"});
    log.line({"(i) -> CALL_TRC_LIMIT - '", terminate(body.call_trc_limit), "'"});
    log.line({"(i) -> DBIO_TRC_LIMIT - '", terminate(body.dbio_trc_limit), "'"});
    log.line({"(i) -> SQL_TRC_LIMIT  - '", terminate(body.sql_trc_limit), "'"});
}

bool is_queue_count(int n) {
    return n == 1 || n == 2 || n == 4 || n == 8 || n == 16;
}

// Everything else is applied even when the log flag set is refused. The magic code doubles as the
// switch that the agent's other processes test: 1 stores the "on" code, any other number is stored
// as it is.
void set_sys_config(agt::log_batch& log) {
    auto& body = r_msg.body.set_sys_config_set_req;
    char& result = s_msg.body.set_sys_config_set_rsp.result_code[0];
    result = '0';
    log_config(log, body);
    if (set_log_flag_set(get_log_flag_set_char(body.log_flag_set)) < 0)
        result = '1';
    const int qcnt = agt::get_number(body.log_qcnt);
    if (is_queue_count(qcnt))
        set_tran_logf_qcnt(qcnt);
    const int onoff = agt::get_number(body.log_onoff);
    set_magic_code(onoff == 1 ? TRACE_ON_MAGIC_CODE : static_cast<unsigned int>(onoff));
    set_svc_filtering(static_cast<signed char>(agt::get_number(body.sfilter_onoff)));
    set_call_trc_depth(agt::get_number(body.call_trc_depth));
    set_call_trc_limit(agt::get_long(body.call_trc_limit));
    set_dbio_trc_limit(agt::get_long(body.dbio_trc_limit));
    set_sql_trc_limit(agt::get_long(body.sql_trc_limit));
}

void set_file_system(int index, const char* name, int alert_pcnt) {
    FILE_SYSTEM& row = tran_agt_shm->file_system[index];
    agt::copy_text(row.file_system, name);
    row.alert_pcnt = alert_pcnt;
    agt::shared_store(tran_agt_shm->file_sys_num, index + 1);
}

// Mount points are ended by commas and the last one by a blank; without the blank the last one is
// lost. The rows used.
int set_file_systems(char* list, int alert_pcnt) {
    std::memset(tran_agt_shm->file_system, 0, sizeof tran_agt_shm->file_system);
    agt::shared_store(tran_agt_shm->file_sys_num, 0);
    int rows = 0;
    char* comma = nullptr;
    while ((comma = std::strchr(list, ',')) != nullptr && rows < FILE_SYSTEM_MAX) {
        *comma = '\0';
        set_file_system(rows++, list, alert_pcnt);
        list = comma + 1;
    }
    char* blank = std::strchr(list, ' ');
    if (blank != nullptr && rows < FILE_SYSTEM_MAX) {
        *blank = '\0';
        set_file_system(rows++, list, alert_pcnt);
    }
    return rows;
}

void log_file_systems(agt::log_batch& log, int rows) {
    log.printf("## file_sys_num : %d", rows);
    for (int i = 0; i < rows; ++i) {
        const FILE_SYSTEM& row = tran_agt_shm->file_system[i];
        log.printf("#%d# file_system : %.*s", i, static_cast<int>(sizeof row.file_system),
                   row.file_system);
        log.printf("#%d# alert_pcnt : %d", i, row.alert_pcnt);
        log.printf("#%d# alert_cnt : %d", i, row.alert_cnt);
    }
}

void set_sys_resource(agt::log_batch& log) {
    auto& body = r_msg.body.set_sys_resource_set_req;
    s_msg.body.set_sys_resource_set_rsp.result_code[0] = '0';
    log.line({"(i) -> CPU_ALERT_SEC       - '", terminate(body.cpu_alert_sec), "'"});
    log.line({"(i) -> CPU_ALERT_PCNT      - '", terminate(body.cpu_alert_pcnt), "'"});
    log.line({"(i) -> FILE_SYS_ALERT_PCNT - '", terminate(body.file_sys_alert_pcnt), "'"});
    log.line({"(i) -> MAX_FILE_SYS_LIST   - '", terminate(body.file_sys_list), "'"});
    agt::shared_store(tran_agt_shm->cpu.alert_sec, agt::get_number(body.cpu_alert_sec));
    agt::shared_store(tran_agt_shm->cpu.alert_pcnt, agt::get_number(body.cpu_alert_pcnt));
    log_file_systems(
        log, set_file_systems(body.file_sys_list, agt::get_number(body.file_sys_alert_pcnt)));
}

// Elements handled before the first that failed; one that asks to delete an unknown service has not
// failed.
int set_services(const SERVICE_ELEMENT* elements, int n) {
    const object_lock lock(agt::SERVICE_TABLE, svc_hash_tbl_semid);
    if (lock.given_up())
        return 0;
    for (int i = 0; i < n; ++i) {
        agt::log_printf("(I) SERVICE_ID : %-*.*s", 16, 16, elements[i].service_id);
        if (set_svc_hash_tbl(&elements[i]) == nullptr && elements[i].update_mode[0] != 'D')
            return i;
    }
    return n;
}

// The result code stays '0' even when an element failed: the server learns of it from the smaller
// number.
void set_modified_service(agt::log_batch& log) {
    const auto& body = r_msg.body.set_modified_service_req;
    auto& answer = s_msg.body.set_modified_service_rsp;
    log.flush();
    const int n = std::clamp(agt::get_number(body.element_num), 0, int{SERVICE_ELEMENT_MAX});
    answer.result_code[0] = '0';
    std::snprintf(answer.element_num, sizeof answer.element_num, "%0*d", 3,
                  set_services(body.elements, n));
}

struct command {
    char type;
    const char* request; // names in the log
    const char* response;
    void (*handle)(agt::log_batch& log);
    void (*afterwards)(); // once the answer is out, or null
};

constexpr command COMMANDS[] = {
    {MSG_RENEW_SERVICE_LIST_REQ, "RENEW_SERVICE_LIST_REQ", "RENEW_SERVICE_LIST_RSP",
     renew_service_list, th_start_get_service_list},
    {MSG_SET_SYS_CONFIG_SET_REQ, "SET_SYS_CONFIG_SET_REQ", "SET_SYS_CONFIG_SET_RSP", set_sys_config,
     nullptr},
    {MSG_SET_SYS_RESOURCE_SET_REQ, "SET_SYS_RESOURCE_SET_REQ", "SET_SYS_RESOURCE_SET_RSP",
     set_sys_resource, nullptr},
    {MSG_SET_MODIFIED_SERVICE_REQ, "SET_MODIFIED_SERVICE_REQ", "SET_MODIFIED_SERVICE_RSP",
     set_modified_service, nullptr},
};

// A response takes the code that follows its request's in the sequence '0' to '9', 'A' to 'I'.
constexpr char response_type(char request_type) {
    return request_type == '9' ? 'A' : static_cast<char>(request_type + 1);
}

// The lines leave the process once the answer is out: the server waits for one write less.
void carry_out(const command& wanted, int sockfd) {
    agt::log_batch log;
    log.printf("(i) MSGRCV : [[ %s ]]", wanted.request);
    s_msg.hdr.msg_type[0] = response_type(wanted.type);
    wanted.handle(log);
    const int slen = send_msg(sockfd, s_msg);
    if (slen < 0) {
        log.printf("<!> tcp send error.. slen : %d", slen);
        drop_cmd_client(sockfd);
    }
    log.printf("(i) MSGSND : [[ %s ]]", wanted.response);
    log.printf("(i) -> RESULT_CODE - '%c'", s_msg.body.set_sys_config_set_rsp.result_code[0]);
    log.flush();
    if (wanted.afterwards != nullptr)
        wanted.afterwards();
}

// What the child that serves an extended request inherits beyond its own connection.
void close_inherited(int sockfd) {
    for (const int fd : {agt_cmd_sockfd, svr_cmd_sockfd.load(), noti_sockfd.load()}) {
        if (fd > 0 && fd != sockfd)
            close(fd);
    }
    for (int i = 0; i < client_list.client_num; ++i) {
        if (client_list.client[i].sockfd != sockfd)
            close(client_list.client[i].sockfd);
    }
}

[[noreturn]] void serve_in_child(int sockfd, int rlen) {
    agt::set_cancel_fd(-1);
    agt::restore_signals();
    std::signal(SIGPIPE, SIG_IGN); // what it runs gets the default back
    close_inherited(sockfd);
    serve_ext_request(sockfd, reinterpret_cast<const unsigned char*>(&r_msg), rlen);
    agt::close_tcp_session(sockfd);
    std::fflush(stdout);
    _exit(0);
}

// Hands an extended request to a child, so that no command and no transfer keeps the loop waiting.
// The child is reaped by the SIGCHLD handler or, as a daemon, by the system.
void hand_over(int sockfd, int rlen) {
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0)
        serve_in_child(sockfd, rlen);
    if (pid < 0)
        agt::log_printf("<!> fork error. errno : %d", errno);
    close(sockfd);
    FD_CLR(sockfd, &readFds);
    del_cmd_client(sockfd);
}

// Receives one request into r_msg; false when the connection was dropped instead.
bool receive_request(int sockfd) {
    const int rlen = agt::recv_tcp_data_ready(sockfd, &r_msg, sizeof r_msg,
                                              RECV_TIMEOUT_SEC); // all of it or nothing
    if (rlen < 1) {
        drop_cmd_client(sockfd);
        if (rlen == -2)
            agt::log_printf("<!> cmd_event receive timeout, sockfd : %d, rlen : %d", sockfd, rlen);
        return false;
    }
    if (agt::magic_bit_check(sockfd, &r_msg) == 1)
        return true;
    drop_cmd_client(sockfd);
    agt::log_printf("<!> magic bit mismatch. sockfd : %d, rlen : %d", sockfd, rlen);
    return false;
}

} // namespace

void cmd_event(const CMD_CLIENT* client) {
    const int sockfd = client->sockfd; // the entry moves when a connection is dropped
    if (!receive_request(sockfd))
        return;
    const char type = r_msg.hdr.msg_type[0];
    set_header(&s_msg, s_msg.hdr.msg_type[0]);
    if (type == MSG_EXT_REQ) {
        if (admit_ext_request(client->sock_addr))
            hand_over(sockfd, TCP_CMD_MSG_SIZE);
        else
            drop_cmd_client(sockfd);
        return;
    }
    const command* wanted = std::find_if(std::begin(COMMANDS), std::end(COMMANDS),
                                         [type](const command& c) { return c.type == type; });
    if (wanted != std::end(COMMANDS)) {
        carry_out(*wanted, sockfd);
        return;
    }
    agt::log_printf("<!> error! unknown command type('%c')", type);
    drop_cmd_client(sockfd);
}

} // namespace kessard
