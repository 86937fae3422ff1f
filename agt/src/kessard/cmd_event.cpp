// The command dispatcher.
//
// A table leads from the type code to what shows a request in the log and the handler that carries
// it out; receiving, sending and the log lines around them are the same for all. The lines of what
// was received are in the file before the handler runs, the others leave once the answer is out.
#include "cmd_event.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "access_control.h"
#include "audit.h"
#include "check_network.h"
#include "cmd_state.h"
#include "ext_request.h"
#include "field.h"
#include "get_service_list.h"
#include "handshakes.h"
#include "health_check.h"
#include "kessard/cmd_msg.h"
#include "kessard/tran_logf_que_info.h"
#include "log_printf.h"
#include "open_object.h"
#include "printable.h"
#include "server_link.h"
#include "set_svc_hash_tbl.h"
#include "shared_field.h"
#include "shell_start.h"
#include "state_file.h"
#include "tcp_base.h"
#include "tcp_recv.h"
#include "tcp_send.h"
#include "tran_agt.h"
#include "tran_logf_que_info.h"
#include "wait.h"

namespace kessard {
namespace {

constexpr int TABLE_WAIT_MS = 500;    // for the service table, at a time
constexpr int TABLE_LIMIT_MS = 10000; // and in all
constexpr int CHILD_SEND_LIMIT_MS = 60000;

enum class outcome { done, later };

// Gives the field its terminator, whatever the sender put there.
template <std::size_t L, std::size_t N>
void show_field(agt::log_batch& lines, const char (&label)[L], char (&field)[N]) {
    field[N - 1] = '\0';
    lines.line("(i) -> ", label, " - '", agt::shown(field), "'");
}

void show_nothing(TCP_CMD_MSG&, agt::log_batch&) {}

outcome renew_service_list(TCP_CMD_MSG&, TCP_CMD_MSG&) {
    return outcome::done;
}

void show_config(TCP_CMD_MSG& request, agt::log_batch& lines) {
    auto& body = request.body.set_sys_config_set_req;
    show_field(lines, "IPADDR        ", body.ipaddr);
    show_field(lines, "LOG_FLAG_SET  ", body.log_flag_set);
    show_field(lines, "LOG_QCNT      ", body.log_qcnt);
    show_field(lines, "LOG_ONOFF     ", body.log_onoff);
    show_field(lines, "SFILTER_ONOFF ", body.sfilter_onoff);
    show_field(lines, "CALL_TRC_DEPTH", body.call_trc_depth);
    show_field(lines, "CALL_TRC_LIMIT", body.call_trc_limit);
    show_field(lines, "DBIO_TRC_LIMIT", body.dbio_trc_limit);
    show_field(lines, "SQL_TRC_LIMIT ", body.sql_trc_limit);
}

bool is_queue_count(int n) {
    return n == 1 || n == 2 || n == 4 || n == 8 || n == 16;
}

// Everything else is applied even when the log flag set is refused. The magic code doubles as the
// switch that the agent's other processes test: 1 stores the "on" code, any other number is stored
// as it is.
outcome set_sys_config(TCP_CMD_MSG& request, TCP_CMD_MSG& answer) {
    const auto& body = request.body.set_sys_config_set_req;
    if (set_log_flag_set(get_log_flag_set_char(body.log_flag_set)) < 0)
        answer.body.set_sys_config_set_rsp.result_code[0] = '1';
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
    return outcome::done;
}

void set_file_system(int index, const char* name, int alert_pcnt) {
    FILE_SYSTEM& row = tran_agt_shm->file_system[index];
    agt::copy_text(row.file_system, name);
    row.alert_pcnt = alert_pcnt;
    // The row before its number, for those who read without a lock.
    agt::shared_store(tran_agt_shm->file_sys_num, index + 1, std::memory_order_release);
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

void log_file_systems(int rows) {
    const agt::log_batch batch;
    agt::log_printf("## file_sys_num : %d", rows);
    for (int i = 0; i < rows; ++i) {
        const FILE_SYSTEM& row = tran_agt_shm->file_system[i];
        agt::log_printf("#%d# file_system : %s", i, agt::printable(row.file_system).c_str());
        agt::log_printf("#%d# alert_pcnt : %d", i, row.alert_pcnt);
        agt::log_printf("#%d# alert_cnt : %d", i, row.alert_cnt);
    }
}

void show_resource(TCP_CMD_MSG& request, agt::log_batch& lines) {
    auto& body = request.body.set_sys_resource_set_req;
    show_field(lines, "CPU_ALERT_SEC      ", body.cpu_alert_sec);
    show_field(lines, "CPU_ALERT_PCNT     ", body.cpu_alert_pcnt);
    show_field(lines, "FILE_SYS_ALERT_PCNT", body.file_sys_alert_pcnt);
    show_field(lines, "MAX_FILE_SYS_LIST  ", body.file_sys_list);
}

outcome set_sys_resource(TCP_CMD_MSG& request, TCP_CMD_MSG&) {
    auto& body = request.body.set_sys_resource_set_req;
    agt::shared_store(tran_agt_shm->cpu.alert_sec, agt::get_number(body.cpu_alert_sec));
    agt::shared_store(tran_agt_shm->cpu.alert_pcnt, agt::get_number(body.cpu_alert_pcnt));
    log_file_systems(
        set_file_systems(body.file_sys_list, agt::get_number(body.file_sys_alert_pcnt)));
    return outcome::done;
}

// Elements handled before the first that failed; one that asks to delete an unknown service has not
// failed.
int set_services(const SERVICE_ELEMENT* elements, int n) {
    for (int i = 0; i < n; ++i) {
        agt::log_printf("(I) SERVICE_ID : %-*s", 16,
                        agt::printable(elements[i].service_id).c_str());
        if (set_svc_hash_tbl(&elements[i]) == nullptr && elements[i].update_mode[0] != 'D')
            return i;
    }
    return n;
}

// The result code stays '0' even when an element failed: the server learns of it from the smaller
// number, which is 0 as long as the table is taken.
outcome set_modified_service(TCP_CMD_MSG& request, TCP_CMD_MSG& answer) {
    const auto& body = request.body.set_modified_service_req;
    auto& element_num = answer.body.set_modified_service_rsp.element_num;
    const object_lock lock(agt::SERVICE_TABLE, svc_hash_tbl_semid, TABLE_WAIT_MS);
    const int n = std::clamp(agt::get_number(body.element_num), 0, int{SERVICE_ELEMENT_MAX});
    const int set = lock.given_up() ? 0 : set_services(body.elements, n);
    std::snprintf(element_num, sizeof element_num, "%0*d", 3, set);
    return lock.given_up() && !agt::cancelled() ? outcome::later : outcome::done;
}

struct command {
    char type;
    char answer_type;
    const char* request; // names in the log
    const char* response;
    // Terminates the fields of the request and writes them to the log.
    void (*show)(TCP_CMD_MSG& request, agt::log_batch& lines);
    // Does what the request asks for. The answer has its type and the result code '0'. One that is
    // to be tried again later has done nothing, and answers so.
    outcome (*handle)(TCP_CMD_MSG& request, TCP_CMD_MSG& answer);
    void (*afterwards)();                              // once the answer is out, or null
    state_fields (*state)(const TCP_CMD_MSG& request); // that it changes, for the audit, or null
};

constexpr command COMMANDS[] = {
    {MSG_RENEW_SERVICE_LIST_REQ, MSG_RENEW_SERVICE_LIST_RSP, "RENEW_SERVICE_LIST_REQ",
     "RENEW_SERVICE_LIST_RSP", show_nothing, renew_service_list, th_start_get_service_list,
     nullptr},
    {MSG_SET_SYS_CONFIG_SET_REQ, MSG_SET_SYS_CONFIG_SET_RSP, "SET_SYS_CONFIG_SET_REQ",
     "SET_SYS_CONFIG_SET_RSP", show_config, set_sys_config, nullptr, settings_state},
    {MSG_SET_SYS_RESOURCE_SET_REQ, MSG_SET_SYS_RESOURCE_SET_RSP, "SET_SYS_RESOURCE_SET_REQ",
     "SET_SYS_RESOURCE_SET_RSP", show_resource, set_sys_resource, nullptr, resource_state},
    {MSG_SET_MODIFIED_SERVICE_REQ, MSG_SET_MODIFIED_SERVICE_RSP, "SET_MODIFIED_SERVICE_REQ",
     "SET_MODIFIED_SERVICE_RSP", show_nothing, set_modified_service, nullptr, service_state},
};

// The result code of any of the answers: the first byte of their bodies.
char& result_code_of(TCP_CMD_MSG& answer) {
    static_assert(offsetof(BODY_RENEW_SERVICE_LIST_RSP, result_code) == 0 &&
                  offsetof(BODY_SET_SYS_CONFIG_SET_RSP, result_code) == 0 &&
                  offsetof(BODY_SET_SYS_RESOURCE_SET_RSP, result_code) == 0 &&
                  offsetof(BODY_SET_MODIFIED_SERVICE_RSP, result_code) == 0);
    return answer.body.renew_service_list_rsp.result_code[0];
}

const command* find_command(char type) {
    const auto* found = std::find_if(std::begin(COMMANDS), std::end(COMMANDS),
                                     [type](const command& known) { return known.type == type; });
    return found == std::end(COMMANDS) ? nullptr : found;
}

// What was asked for reaches the log before anything is changed.
void show_request(const command& wanted, TCP_CMD_MSG& request) {
    agt::log_batch lines;
    lines.line("(i) MSGRCV : [[ ", std::string_view(wanted.request), " ]]");
    wanted.show(request, lines);
}

outcome carry_out(const command& wanted, TCP_CMD_MSG& request, TCP_CMD_MSG& answer) {
    answer.hdr.msg_type[0] = wanted.answer_type;
    result_code_of(answer) = '0';
    return wanted.handle(request, answer);
}

void send_answer(const command& wanted, int sockfd, TCP_CMD_MSG& answer) {
    const int slen = send_msg(sockfd, answer);
    agt::log_batch lines;
    if (slen < 0 && !agt::cancelled())
        agt::log_printf("<!> tcp send error.. slen : %d", slen);
    if (slen < 0)
        drop_cmd_client(sockfd, "answer not taken");
    lines.line("(i) MSGSND : [[ ", std::string_view(wanted.response), " ]]");
    lines.line("(i) -> RESULT_CODE - '", result_code_of(answer), "'");
}

// What the child that serves an extended request inherits beyond its own connection.
void close_inherited(int sockfd) {
    for (const int fd : {agt_cmd_sockfd, svr_cmd_sockfd.load(), noti_sockfd()}) {
        if (fd > 0 && fd != sockfd)
            agt::leave_tcp_session(fd);
    }
    close_handshakes();
    for (int i = 0; i < client_list.client_num; ++i) {
        if (client_list.client[i].sockfd != sockfd)
            agt::leave_tcp_session(client_list.client[i].sockfd);
    }
}

[[noreturn]] void serve_in_child(int sockfd, const TCP_CMD_MSG& request) {
    agt::set_cancel_fd(-1);
    agt::restore_signals({SIGPIPE, SIGXFSZ}); // what it runs gets the default back
    close_inherited(sockfd);
    agt::set_send_limit(CHILD_SEND_LIMIT_MS); // nobody waits behind this peer
    agt::notice_dead_peer(sockfd, CHILD_SEND_LIMIT_MS);
    serve_ext_request(sockfd, reinterpret_cast<const unsigned char*>(&request), TCP_CMD_MSG_SIZE);
    drop_cmd_client(sockfd, "request served");
    std::fflush(stdout);
    _exit(0);
}

// Hands an extended request to a child, so that no command and no transfer keeps the loop waiting.
// The child is reaped by the SIGCHLD handler or, as a daemon, by the system.
void hand_over(const CMD_CLIENT client, const TCP_CMD_MSG& request) {
    const int sockfd = client.sockfd;
    std::fflush(stdout);
    const char* bytes = reinterpret_cast<const char*>(&request);
    audit_request("request", "type=EXT_REQ code=%.*s data=%.*s", int{EXT_REQ_CODE_SIZE},
                  bytes + EXT_REQ_CODE_AT, int{TCP_CMD_MSG_SIZE} - int{EXT_REQ_DATA_AT},
                  bytes + EXT_REQ_DATA_AT);
    const pid_t pid = fork();
    if (pid == 0)
        serve_in_child(sockfd, request);
    if (pid < 0) {
        agt::log_printf("<!> fork error. errno : %d", errno);
        audit_connection("ended", client.sock_addr, sockfd, "no process");
    }
    agt::leave_tcp_session(sockfd);
    FD_CLR(sockfd, &readFds);
    del_cmd_client(sockfd);
}

// Whether a request that has to wait for the service table may be tried again; logs a long wait
// once, and the last.
bool wait_for_table(cmd_frame& frame) {
    const long long now_ms = agt::monotonic_ms();
    if (frame.waiting_since_ms == 0)
        frame.waiting_since_ms = now_ms - TABLE_WAIT_MS;
    const long long waited_ms = now_ms - frame.waiting_since_ms;
    if (waited_ms >= LONG_WAIT_MS && !frame.wait_logged)
        log_long_wait(agt::SERVICE_TABLE, svc_hash_tbl_semid);
    frame.wait_logged = waited_ms >= LONG_WAIT_MS;
    if (waited_ms < TABLE_LIMIT_MS)
        return true;
    agt::log_printf("<!> svc_hash_tbl is taken for too long, nothing is changed.");
    return false;
}

void audit_command(const command& wanted, TCP_CMD_MSG& answer, const state_fields& before,
                   const state_fields& after) {
    audit_request("command", "type=%s result=%c%s", wanted.request, result_code_of(answer),
                  effect_text(before, after).c_str());
}

void count_command(char type) {
    const auto code = static_cast<unsigned char>(type);
    if (code < STATE_COMMANDS)
        figure_add(figures->commands[code]);
}

// Carries the request of a frame out and answers it, unless it has to wait.
void serve_command(const command& wanted, cmd_frame& frame, TCP_CMD_MSG& answer) {
    const int sockfd = frame.sockfd();
    if (frame.waiting_since_ms == 0)
        show_request(wanted, frame.message());
    const bool audited = audit_yn && wanted.state != nullptr;
    const state_fields before = audited ? wanted.state(frame.message()) : state_fields();
    const outcome result = carry_out(wanted, frame.message(), answer);
    if (result == outcome::later && wait_for_table(frame))
        return;
    count_command(wanted.type);
    if (audit_yn)
        audit_command(wanted, answer, before, audited ? wanted.state(frame.message()) : before);
    frame.done();
    send_answer(wanted, sockfd, answer);
    if (wanted.afterwards != nullptr)
        wanted.afterwards();
}

} // namespace

bool handle_command(TCP_CMD_MSG& request, TCP_CMD_MSG& answer) {
    const command* wanted = find_command(request.hdr.msg_type[0]);
    if (wanted == nullptr)
        return false;
    show_request(*wanted, request);
    carry_out(*wanted, request, answer);
    return true;
}

// The buffer of the answers is never cleared: behind the fields that a handler sets, an answer
// carries what earlier ones left.
void cmd_event(const CMD_CLIENT* client) {
    static TCP_CMD_MSG s_msg;
    const int sockfd = client->sockfd; // the entry moves when a connection is dropped
    cmd_frame& frame = frame_of(sockfd);
    if (frame.now() == cmd_frame::state::gathering)
        frame.gather();
    if (frame.now() == cmd_frame::state::gathering)
        return;
    if (frame.now() == cmd_frame::state::over) {
        drop_cmd_client(sockfd, frame.reason());
        return;
    }
    if (agt::magic_bit_check(sockfd, &frame.message()) != 1) {
        drop_cmd_client(sockfd, "no magic bytes");
        agt::log_printf("<!> magic bit mismatch. sockfd : %d, rlen : %d", sockfd, TCP_CMD_MSG_SIZE);
        return;
    }
    audit_serves(client->sock_addr, sockfd);
    const char type = frame.message().hdr.msg_type[0];
    set_header(&s_msg, s_msg.hdr.msg_type[0]);
    const command* wanted = find_command(type);
    if (wanted != nullptr) {
        serve_command(*wanted, frame, s_msg);
    } else if (type == MSG_EXT_REQ && admit_ext_request(client->sock_addr)) {
        count_command(type);
        hand_over(*client, frame.message());
    } else {
        if (type != MSG_EXT_REQ)
            count_command(type);
        if (type != MSG_EXT_REQ)
            agt::log_printf("<!> error! unknown command type('%s')", agt::printable(type).c_str());
        drop_cmd_client(sockfd, type == MSG_EXT_REQ ? "remote commands not allowed"
                                                    : "unknown command type");
    }
}

} // namespace kessard
