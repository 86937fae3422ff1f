// Start-up.
//
// The configuration is a table of keys, walked in order: each row says where the word stands, what
// taking it does, and what is logged when the key may be absent. A step that does more than store
// the word is a function of its own.
#include "init.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "access_control.h"
#include "check_network.h"
#include "client.h"
#include "field.h"
#include "get_service_list.h"
#include "jcache_hash_stk.h"
#include "kessard/cmd_msg.h"
#include "log_printf.h"
#include "noti_send_que.h"
#include "open_object.h"
#include "process_globals.h"
#include "ptrc_hash_stk.h"
#include "read_cfg.h"
#include "server_link.h"
#include "set_svc_hash_tbl.h"
#include "settings.h"
#include "tran_agt.h"
#include "tran_logf_que_info.h"
#include "util.h"

namespace kessard {
namespace {

int to_number(const char* word) {
    return static_cast<int>(std::strtol(word, nullptr, 10));
}

// An absolute path as it is, a relative one under TRAN_AGT_HOME. One that does not fit is cut,
// which is said.
template <std::size_t N> void take_path(char (&out)[N], const char* word) {
    if (!agt::resolve_path(out, N, std::getenv("TRAN_AGT_HOME"), word))
        std::fprintf(stderr, "<!> path is too long and was cut : %s\n", out);
}

template <int& Target> bool take_number(const char* word) {
    Target = to_number(word);
    return true;
}

template <auto& Target> bool take_text(const char* word) {
    agt::copy_text(Target, word);
    return true;
}

// A log that cannot be opened does not stop the start: its lines are dropped.
bool take_log_home(const char* word) {
    take_path(log_home_dir, word);
    char dir[128];
    const int length = std::snprintf(dir, sizeof dir, "%s/proc/%s", log_home_dir, PROGRAM_NAME);
    if (length >= static_cast<int>(sizeof dir))
        std::fprintf(stderr, "<!> path is too long and was cut : %s\n", dir);
    if (agt::open_log(dir, PROGRAM_NAME, 1) != 0)
        std::fprintf(stderr, "<!> cannot open a log file in %s\n", dir);
    return true;
}

bool take_agt_cmd_port(const char* word) {
    agt_cmd_port = to_number(word);
    agt::log_printf("(I) agt_cmd_port [%d:%s]", agt_cmd_port, word);
    agt_cmd_sockfd = init_tcp_server(agt_ipaddr, agt_cmd_port);
    if (agt_cmd_sockfd < 0)
        agt::log_printf("<!> init tcp server fail. (agent ip : %s, cmd_port : %d)", agt_ipaddr,
                        agt_cmd_port);
    return agt_cmd_sockfd >= 0;
}

bool take_srv_ipaddr(const char* word) {
    set_server_address(word, get_server_address().srv_cmd_port);
    return true;
}

bool take_srv_cmd_port(const char* word) {
    set_server_address(get_server_address().srv_ipaddr, to_number(word));
    return true;
}

// A server that is down does not stop the start.
bool take_active_limit(const char* word) {
    open_noti_link(to_number(word));
    return true;
}

bool take_daily_update_hhmi(const char* word) {
    std::memset(update_service_hhmi, 0, sizeof update_service_hhmi);
    std::memcpy(update_service_hhmi, word, agt::text_length(word, 4));
    agt::log_printf(">> Update DAILY_UPDATE_HHMI(4DIGIT) : %s", update_service_hhmi);
    return true;
}

bool take_daily_update_script(const char* word) {
    take_path(update_service_script, word);
    agt::log_printf(">> Update DAILY_UPDATE_SCRIPT : %s", update_service_script);
    return true;
}

bool take_svc_update_chk_file(const char* word) {
    take_path(svc_update_chk_fn, word);
    agt::log_printf("svc_update_chk_fn = %s", svc_update_chk_fn);
    return true;
}

bool take_trc_sts_check_period(const char* word) {
    trc_sts_check_period = to_number(word);
    agt::log_printf("trc_sts_check_period = %d", trc_sts_check_period);
    return true;
}

bool take_daily_update_yn(const char* word) {
    daily_update_yn = std::strcmp(word, "Y") == 0;
    return true;
}

// The log line names this file and shows the update trigger's path, as it always has.
bool take_api_stat_out(const char* word) {
    take_path(api_stat_out_fn, word);
    agt::log_printf("api_stat_out_fn = %s", svc_update_chk_fn);
    return true;
}

constexpr char PASS_DAILY_UPDATE[] = ">> Pass DAILY_UPDATE_HHMI";
constexpr char SILENT[] = ""; // an absent key leaves no trace, on standard error neither

struct cfg_row {
    const char* section;
    const char* keyword;
    int word;
    bool (*take)(const char* word); // false ends the start-up
    const char* if_absent;          // the log line of a key that may be absent; null: required
};

constexpr cfg_row CFG_ROWS[] = {
    {"COMMON", "LOG_HOME", 1, take_log_home, nullptr},
    {"TRAN_AGENT", "IP_ADDRESS", 1, take_text<agt_ipaddr>, nullptr},
    {"TRAN_AGENT", "CMD_PORT", 1, take_agt_cmd_port, nullptr},
    {"TRAN_SERVER", "IP_ADDRESS", 1, take_srv_ipaddr, nullptr},
    {"TRAN_SERVER", "CMD_PORT", 1, take_srv_cmd_port, nullptr},
    {"ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", 1, take_active_limit, nullptr},
    {"IPC_SHARED_MEMORY", "TRAN_LOGF_QUE_INFO_SHMKEY", 1, take_number<tran_logf_que_info_shmkey>,
     nullptr},
    {"IPC_SHARED_MEMORY", "SVC_HASH_TBL_SHMKEY", 1, take_number<svc_hash_tbl_shmkey>, nullptr},
    {"IPC_SHARED_MEMORY", "NOTI_SEND_QUE_SHMKEY", 1, take_number<noti_send_que_shmkey>, nullptr},
    {"IPC_SEMAPHORE", "SVC_HASH_TBL_SEMKEY", 1, take_number<svc_hash_tbl_semkey>, nullptr},
    {"IPC_SEMAPHORE", "NOTI_SEND_QUE_SEMKEY", 1, take_number<noti_send_que_semkey>, nullptr},
    {"SERVICE_HASH", "DAILY_UPDATE_HHMI", 1, take_daily_update_hhmi, PASS_DAILY_UPDATE},
    {"SERVICE_HASH", "DAILY_UPDATE_SCRIPT", 1, take_daily_update_script, PASS_DAILY_UPDATE},
    {"SERVICE_HASH", "DAILY_UPDATE_YN", 1, take_daily_update_yn, SILENT},
    {"TRAN_LOGF", "LOG_INTERFACE", 1, take_text<log_interface>, nullptr},
    {"TRAN_LOGF", "TR_SECTION", 1, take_text<tr_section>, nullptr},
    {"CHECK_FILES", "SVC_UPDATE_CHK_FILE", 1, take_svc_update_chk_file, nullptr},
    {"PTRC_HASH", "TRC_STS_CHECK_PERIOD", 1, take_trc_sts_check_period, nullptr},
    {"IPC_SHARED_MEMORY", "PTRC_HASH_TBL_SHMKEY", 1, take_number<ptrc_hash_tbl_shmkey>, nullptr},
    {"IPC_SEMAPHORE", "PTRC_HASH_TBL_SEMKEY", 1, take_number<ptrc_hash_tbl_semkey>, nullptr},
    {"IPC_SHARED_MEMORY", "JCACHE_HASH_TBL_SHMKEY", 1, take_number<jcache_hash_tbl_shmkey>,
     nullptr},
    {"IPC_SEMAPHORE", "JCACHE_HASH_TBL_SEMKEY", 1, take_number<jcache_hash_tbl_semkey>, nullptr},
    {"SERVICE_HASH", "DEFAULT_TIMEOUT_SEC", 1, take_number<default_timeout_sec>, nullptr},
    {"IPC_SHARED_MEMORY", "TRAN_AGT_SHMKEY", 1, take_number<tran_agt_shmkey>, nullptr},
    {"IPC_SEMAPHORE", "TRAN_AGT_SEMKEY", 1, take_number<tran_agt_semkey>, nullptr},
    {"CHECK_API_STAT", "ACT", 4, take_api_stat_out, nullptr},
};

bool take_key(const cfg_row& row) {
    char word[agt::CFG_WORD_SIZE];
    const auto look_up = row.if_absent == SILENT ? agt::find_nth_token_in_file_section
                                                 : agt::get_nth_token_in_file_section;
    errno = 0;
    if (look_up(cfg_file(), row.section, row.keyword, row.word, word) > 0)
        return row.take(word);
    const int error = errno;
    if (error != 0) // a file that cannot be read does not say that a key is absent
        agt::log_printf("<!> %s %s : cannot be read, errno : %d", row.section, row.keyword, error);
    if (row.if_absent == nullptr || error != 0)
        return false;
    agt::log_printf("%s", row.if_absent);
    return true;
}

bool take_all_keys() {
    for (const cfg_row& row : CFG_ROWS) {
        if (!take_key(row))
            return false;
    }
    return true;
}

bool check_variable(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr) {
        std::printf("<!> please, check environment-variable (%s)\n", name);
        return false;
    }
    std::printf("ok, get environment-variable (%s : %s)\n", name, value);
    return true;
}

int check_env_var() {
    return check_variable("TRAN_AGT_HOME") && check_variable("TRAN_AGT_CFG_FILE") ? 1 : 0;
}

int init_config() {
    const agt::lock_guard guard(cfg_mutex);
    if (!take_all_keys() || !read_access_control())
        return 0;
    agt::log_printf("(i) config-file(%s) read complete. TCP_CMD_MSG size %d bytes", cfg_file(),
                    TCP_CMD_MSG_SIZE);
    return 1;
}

// The runtime settings segment; a new one takes its queue count from the configuration.
bool create_settings() {
    const int key = tran_logf_que_info_shmkey;
    int existed = 0;
    if (create_tran_logf_que_info(key, &existed) < 0) {
        log_object_error(agt::SETTINGS_SEGMENT, key);
        return false;
    }
    if (existed == 0) {
        int qcnt = 0;
        if (!read_cfg_number("TRAN_LOGF", "QUE_CNT", &qcnt))
            return false;
        set_tran_logf_qcnt(qcnt);
    }
    log_object_complete(agt::SETTINGS_SEGMENT, key, existed != 0);
    return true;
}

bool create_noti_que() {
    int existed = 0;
    if (create_noti_send_que(noti_send_que_shmkey, 0, &existed) < 0) {
        log_object_error(agt::NOTI_QUEUE, noti_send_que_shmkey);
        return false;
    }
    log_object_complete(agt::NOTI_QUEUE, noti_send_que_shmkey, existed != 0);
    opened_object semaphores; // for the producers; the daemon never takes it
    return open_logged_object(agt::NOTI_QUEUE_SEM, noti_send_que_semkey, &semaphores);
}

int create_que() {
    return create_settings() && create_noti_que() ? 1 : 0;
}

int init_sock_client() {
    if (init_cmd_client() >= 0)
        return 1;
    agt::log_printf("<!> cmd client init error");
    return 0;
}

// The table is loaded from the server before the start-up goes on.
int create_svc_hash_tbl() {
    if (!open_svc_hash_tbl())
        return 0;
    th_start_get_service_list();
    th_join_get_service_list();
    return 1;
}

constexpr int (*INIT_STEPS[])() = {
    check_env_var,          init_config,         create_que,
    init_sock_client,       create_svc_hash_tbl, create_ptrc_hash_tbl,
    create_jcache_hash_tbl, create_tran_agt_sem, create_tran_agt_shm};

} // namespace

int init() {
    for (const auto step : INIT_STEPS) {
        if (step() == 0)
            return 0;
    }
    return 1;
}

} // namespace kessard
