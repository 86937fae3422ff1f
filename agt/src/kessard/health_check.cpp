// Health check and device information.
//
// The two messages are built in the same buffer, which is never cleared: a field that a cycle does
// not write repeats its last value (the API statistics while their file is absent, for example).
// All values are read from shared memory without locks and are a snapshot.
#include "health_check.h"

#include <sys/shm.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "daemon_thread.h"
#include "field.h"
#include "get_service_list.h"
#include "index_stack.h"
#include "jcache_hash_stk.h"
#include "kessard/cmd_msg.h"
#include "log_printf.h"
#include "printable.h"
#include "process_globals.h"
#include "ptrc_hash_stk.h"
#include "server_link.h"
#include "set_svc_hash_tbl.h"
#include "settings.h"
#include "shortage.h"
#include "state_file.h"
#include "tcp_base.h"
#include "tran_agt.h"
#include "tran_logf_que_info.h"
#include "util.h"
#include "wait.h"

namespace kessard {

std::atomic<int> svr_cmd_sockfd{-1};

namespace {

constexpr char RECONNECTED_LINE[] = "################################################";
constexpr std::size_t API_STAT_LINE_MAX = 1024;   // characters; a longer one is read as several
constexpr char PROCESS_TID[] = "000000000000000"; // in the tid of a process entry
constexpr const char* OWN_PROGRAMS[] = {"trailsink", "pulsed", "beaconer"};

constexpr exchange_texts TEXTS = {.not_sent = "<!> server send error.. slen : %d",
                                  .no_answer = "<!> XXXX server recv error.. , rlen : %d"};

TCP_CMD_MSG s_msg;
TCP_CMD_MSG r_msg;
daemon_thread th("health_check", health_check, "pthread_create error", STATE_HEALTH_CHECK,
                 HEALTH_CHECK_INTERVAL_SEC * 1000);

// Fields of these messages end in a comma, so that the body reads as a comma-separated line.
template <std::size_t N> void end_field(char (&field)[N]) {
    field[N - 1] = ',';
}

template <std::size_t N> void report_text(char (&field)[N], const char* text) {
    agt::put_text(field, text);
    end_field(field);
}

template <std::size_t N> void report_number(char (&field)[N], long value) {
    agt::put_number(field, value);
    end_field(field);
}

template <std::size_t N> void report_percent(char (&field)[N], double value) {
    agt::put_percent(field, value);
    end_field(field);
}

void close_connection() {
    agt::close_tcp_session(svr_cmd_sockfd.exchange(-1));
}

void tell_answer() {
    figure_now(figures->server_answered_ms);
    figure_set(figures->server_failing, 0);
}

// The end of the daemon is no failure of the server.
void tell_failure(int error) {
    if (agt::cancelled())
        return;
    figure_set(figures->server_error, error);
    figure_add(figures->server_failures);
    figure_add(figures->server_failing);
}

bool connect_if_needed() {
    if (svr_cmd_sockfd > 0)
        return true;
    svr_cmd_sockfd = connect_server();
    return svr_cmd_sockfd >= 0;
}

// Sends s_msg and receives the answer into r_msg; false with the connection closed.
bool exchange_or_close(char type, exchange_lengths* lengths) {
    if (exchange(svr_cmd_sockfd, type, &s_msg, &r_msg, TEXTS, lengths) == exchange_result::answered)
        return true;
    close_connection();
    return false;
}

template <std::size_t N> bool report_host_name(char (&field)[N]) {
    if (put_host_name(field, N))
        return true;
    close_connection();
    return false;
}

void report_settings(BODY_HEALTH_CHECK_REQ& body) {
    report_text(body.ipaddr, agt_ipaddr);
    report_number(body.port, agt_cmd_port);
    report_text(body.log_interface, log_interface);
    report_text(body.log_flag_set, get_log_flag_set_str(get_log_flag_set()));
    report_number(body.log_qcnt, get_tran_logf_qcnt());
    report_number(body.log_onoff,
                  static_cast<unsigned int>(get_magic_code()) == TRACE_ON_MAGIC_CODE ? 1 : 0);
    report_number(body.sfilter_onoff, get_svc_filtering());
    report_number(body.call_trc_depth, get_call_trc_depth());
    report_number(body.call_trc_limit, get_call_trc_limit());
    report_number(body.dbio_trc_limit, get_dbio_trc_limit());
    report_number(body.sql_trc_limit, get_sql_trc_limit());
    report_number(body.api_log, get_save_apilog());
    report_number(body.rell_log, get_save_relllog());
}

void report_tables(BODY_HEALTH_CHECK_REQ& body) {
    report_number(body.api_shm_nattch, get_shm_nattch(tran_logf_que_info_shmkey));
    report_number(body.svc_shm_nattch, get_shm_nattch(svc_hash_tbl_shmkey));
    report_number(body.svc_list_cnt, static_cast<int>(agt::shared_load(svc_hash_tbl->alloc_cnt)));
    report_number(body.engine_sts, get_engine_sts(body.chk_msg));
    report_number(body.init_proc_num, get_init_proc_num());
    report_percent(body.ptrc_hashtbl_used_pcnt, get_ptrc_hashtbl_used_pcnt());
    report_percent(body.jcache_hashtbl_used_pcnt, get_jcache_hashtbl_used_pcnt());
}

// The shared cur_qcnt counter is not reported: its field repeats out_discard_qcnt, as the server
// expects.
void report_queue(QUE_STAT_STR& row, const QUE_STAT& queue) {
    report_number(row.in_qcnt, static_cast<int>(agt::shared_load(queue.in_qcnt)));
    report_number(row.in_discard_qcnt, static_cast<int>(agt::shared_load(queue.in_discard_qcnt)));
    report_number(row.out_qcnt, static_cast<int>(agt::shared_load(queue.out_qcnt)));
    const int out_discarded = static_cast<int>(agt::shared_load(queue.out_discard_qcnt));
    report_number(row.out_discard_qcnt, out_discarded);
    report_number(row.cur_qcnt, out_discarded);
    report_percent(row.log_hashtbl_used_pcnt, agt::shared_load(queue.log_hashtbl_used_pcnt));
}

void report_time(char (&field)[13]) {
    timeval now{};
    gettimeofday(&now, nullptr);
    const struct tm local = agt::local_time(now.tv_sec);
    std::snprintf(field, sizeof field, "%02d%02d%02d%06ld", local.tm_hour, local.tm_min,
                  local.tm_sec, static_cast<long>(now.tv_usec));
    end_field(field);
}

bool build_health_check() {
    auto& body = s_msg.body.health_check_req;
    if (!report_host_name(body.host_name))
        return false;
    report_settings(body);
    report_tables(body);
    for (int i = 0; i < MSG_QUE_STAT_MAX; ++i)
        report_queue(body.que_stat[i], tran_agt_shm->que_stat[i]);
    set_api_stat(reinterpret_cast<char*>(body.api_stat));
    report_time(body.sys_time);
    return true;
}

void build_device_info(BODY_DEVICE_INFO_REQ& body) {
    const DEVICE_INFO& device = tran_agt_shm->device_info;
    char os_info[sizeof device.os_info] = "";
    std::memcpy(os_info, device.os_info, sizeof os_info - 1);
    report_text(body.os_info, os_info);
    report_number(body.core_cnt, agt::shared_load(device.core_cnt));
    constexpr int width = sizeof body.mem_total - 1;
    agt::put_decimal(body.mem_total, agt::shared_load(device.mem_total), width, width);
    end_field(body.mem_total);
}

// Text that grows to at most 300 characters.
struct summary {
    char* text;
    std::size_t used = 0;

    [[gnu::format(printf, 2, 3)]] void add(const char* fmt, ...) {
        constexpr std::size_t size = sizeof(BODY_HEALTH_CHECK_REQ::chk_msg);
        va_list args;
        va_start(args, fmt);
        const int length = std::vsnprintf(text + used, size - used, fmt, args);
        va_end(args);
        used = std::min(used + static_cast<std::size_t>(std::max(length, 0)), size - 1);
    }
};

bool starts_with(const char* text, const char* start) {
    return std::strncmp(text, start, std::strlen(start)) == 0;
}

bool is_initial_process(const PTRC_HASH_ARR& entry) {
    if (std::memcmp(entry.tid, PROCESS_TID, sizeof PROCESS_TID - 1) != 0)
        return false;
    return std::none_of(
        std::begin(OWN_PROGRAMS), std::end(OWN_PROGRAMS),
        [&entry](const char* program) { return starts_with(entry.proc_nm, program); });
}

} // namespace

void th_start_health_check() {
    start_thread(th);
}

void th_cancel_health_check() {
    cancel_thread(th);
}

void th_join_health_check() {
    join_thread(th);
}

void* health_check(void*) {
    bool reconnect = false;
    int device_info_sent = -1;
    while (keep_running()) {
        note_pass();
        if (device_info_sent < 0)
            device_info_sent = transfer_device_info();
        if (agt::sleep_ms(HEALTH_CHECK_INTERVAL_SEC * 1000))
            health_check_cycle(&reconnect);
    }
    return nullptr;
}

void health_check_cycle(bool* reconnect) {
    const server_address server = get_server_address();
    agt::log_printf("(i) ##### health check start, ip : %s(%d) every %d(sec) send %d bytes.",
                    server.srv_ipaddr, server.srv_cmd_port, HEALTH_CHECK_INTERVAL_SEC,
                    TCP_CMD_MSG_SIZE);
    figure_now(figures->server_tried_ms);
    if (!connect_if_needed()) {
        tell_failure(server_error);
        *reconnect = true;
        return;
    }
    exchange_lengths lengths;
    if (!build_health_check())
        return;
    if (!exchange_or_close(MSG_HEALTH_CHECK_REQ, &lengths)) {
        tell_failure(server_error);
        return;
    }
    figure_add(figures->server_answers);
    tell_answer();
    if (*reconnect) {
        *reconnect = false;
        agt::log_printf("%s", RECONNECTED_LINE);
        th_start_get_service_list();
        agt::log_printf("%s", RECONNECTED_LINE);
    }
    const auto& answer = r_msg.body.health_check_rsp;
    agt::log_printf("(i) ##### health check complete (slen : %d, rlen : %d), result_code : %s, "
                    "svr_gap_time : %s",
                    lengths.slen, lengths.rlen, agt::printable(answer.result_code[0]).c_str(),
                    agt::printable(answer.svr_gap_time).c_str());
}

int transfer_device_info() {
    if (svr_cmd_sockfd <= 0) {
        if (!connect_if_needed() || !report_host_name(s_msg.body.device_info_req.host_name))
            return -1;
        build_device_info(s_msg.body.device_info_req);
        if (!exchange_or_close(MSG_DEVICE_INFO_REQ, nullptr))
            return -1;
        figure_set(figures->device_info_sent, 1);
        tell_answer();
    }
    agt::log_printf("(i) ##### device info send complete");
    return 1;
}

int get_shm_nattch(int key) {
    const int shmid = shmget(key, 0, 0);
    struct shmid_ds state {};
    if (shmid < 0 || shmctl(shmid, IPC_STAT, &state) < 0)
        return -1;
    return static_cast<int>(state.shm_nattch);
}

// A process in its wanted state does not end a run: each one that is not is compared with the one
// before it that is not.
int get_engine_sts(char* text) {
    std::memset(text, 0, sizeof(BODY_HEALTH_CHECK_REQ::chk_msg) - 1);
    summary out{text};
    const PROCESS_INFO* last = nullptr;
    int run = 0;
    const int rows = registry_rows();
    for (int i = 0; i < rows; ++i) {
        const PROCESS_INFO& row = proc_info[i];
        if (agt::shared_load(row.cur_sts) == agt::shared_load(row.act_sts))
            continue;
        const bool same =
            last != nullptr && std::strncmp(last->proc_bin, row.proc_bin, sizeof row.proc_bin) == 0;
        if (last != nullptr && !same)
            out.add(" %d, ", run);
        if (!same)
            out.add("%.*s", static_cast<int>(sizeof row.proc_bin), row.proc_bin);
        run = same ? run + 1 : 1;
        last = &row;
    }
    if (run > 0)
        out.add(" %d", run);
    return run > 0 ? 1 : 0;
}

int get_init_proc_num() {
    if (ptrc_hash_tbl == nullptr)
        return -1;
    int count = 0;
    const unsigned int used = agt::stack_size(ptrc_hash_tbl->used);
    for (unsigned int i = 0; i < used; ++i) {
        const unsigned int slot = agt::shared_load(ptrc_hash_tbl->used.idx[i]);
        if (slot < PTRC_HASH_SLOTS && is_initial_process(ptrc_hash_tbl->h_arr[slot].param))
            ++count;
    }
    return count;
}

// A short line brings its line end and terminator into the record; the rest of the record is blank.
void set_api_stat(char* api_stat) {
    std::FILE* file = agt::open_text_file(api_stat_out_fn);
    if (file == nullptr) {
        log_shortage(api_stat_out_fn, errno);
        return;
    }
    std::memset(api_stat, ' ', MSG_API_STAT_MAX * sizeof(API_STAT_STR));
    char line[API_STAT_LINE_MAX + 1];
    for (int count = 0; std::fgets(line, sizeof line, file) != nullptr; ++count) {
        agt::log_printf("(I) api_stat.out #%d --> |%s|", count, agt::printable(line, "\n").c_str());
        if (count >= MSG_API_STAT_MAX)
            break;
        std::memcpy(api_stat + count * sizeof(API_STAT_STR), line,
                    std::min(std::strlen(line) + 1, sizeof(API_STAT_STR)));
    }
    std::fclose(file);
}

} // namespace kessard
