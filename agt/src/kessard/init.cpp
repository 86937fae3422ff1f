// Start-up.
//
// The configuration is read in steps, one for each key of the table that a start reads, in its
// order. A step that does more than store the value is a function of its own.
#include "init.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "access_control.h"
#include "audit.h"
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
#include "server_link.h"
#include "set_svc_hash_tbl.h"
#include "settings.h"
#include "shortage.h"
#include "state_file.h"
#include "tls_policy.h"
#include "tran_agt.h"
#include "tran_logf_que_info.h"
#include "util.h"

namespace kessard {
namespace {

using agt::config_key_of;

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
    agt::log_directory_text dir;
    const int length = std::snprintf(dir, sizeof dir, "%s%s", log_home_dir, agt::LOG_SUBDIRECTORY);
    if (length >= static_cast<int>(sizeof dir))
        std::fprintf(stderr, "<!> path is too long and was cut : %s\n", dir);
    if (agt::open_log(dir, PROGRAM_NAME, 1) != 0)
        std::fprintf(stderr, "<!> cannot open a log file in %s, errno : %d\n", dir, errno);
    return true;
}

bool take_agt_cmd_port(const char* word) {
    agt_cmd_port = to_number(word);
    agt::log_printf("(I) agt_cmd_port [%d:%s]", agt_cmd_port, word);
    agt_cmd_sockfd = init_tcp_server(agt_ipaddr, agt_cmd_port);
    if (agt_cmd_sockfd < 0) {
        log_shortage("command port", errno);
        agt::log_printf("<!> init tcp server fail. (agent ip : %s, cmd_port : %d)", agt_ipaddr,
                        agt_cmd_port);
    }
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

// Makes the first connection to the server, which is TLS where the file says so. A server that is
// down does not stop the start.
bool take_active_limit(const char* word) {
    if (!start_tls())
        return false;
    open_noti_link(to_number(word));
    return true;
}

bool take_daily_update_hhmi(const char* word) {
    std::memset(update_service_hhmi, 0, sizeof update_service_hhmi);
    std::memcpy(update_service_hhmi, word, agt::text_length(word, agt::HHMI_SIZE));
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
    return take_yes_no("SERVICE_HASH DAILY_UPDATE_YN", word, &daily_update_yn);
}

// The log line names this file and shows the update trigger's path, as it always has.
bool take_api_stat_out(const char* word) {
    take_path(api_stat_out_fn, word);
    agt::log_printf("api_stat_out_fn = %s", svc_update_chk_fn);
    return true;
}

constexpr cfg_step CFG_STEPS[] = {
    {config_key_of("COMMON", "LOG_HOME"), take_log_home},
    {config_key_of("TRAN_AGENT", "IP_ADDRESS"), take_text<agt_ipaddr>},
    {config_key_of("TRAN_AGENT", "CMD_PORT"), take_agt_cmd_port},
    {config_key_of("COMMON", "STATE_FILE"), take_state_file},
    {config_key_of("TRAN_SERVER", "IP_ADDRESS"), take_srv_ipaddr},
    {config_key_of("TRAN_SERVER", "CMD_PORT"), take_srv_cmd_port},
    {config_key_of("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT"), take_active_limit},
    {config_key_of("IPC_SHARED_MEMORY", "TRAN_LOGF_QUE_INFO_SHMKEY"),
     take_number<tran_logf_que_info_shmkey>},
    {config_key_of("IPC_SHARED_MEMORY", "SVC_HASH_TBL_SHMKEY"), take_number<svc_hash_tbl_shmkey>},
    {config_key_of("IPC_SHARED_MEMORY", "NOTI_SEND_QUE_SHMKEY"), take_number<noti_send_que_shmkey>},
    {config_key_of("IPC_SEMAPHORE", "SVC_HASH_TBL_SEMKEY"), take_number<svc_hash_tbl_semkey>},
    {config_key_of("IPC_SEMAPHORE", "NOTI_SEND_QUE_SEMKEY"), take_number<noti_send_que_semkey>},
    {config_key_of("SERVICE_HASH", "DAILY_UPDATE_HHMI"), take_daily_update_hhmi},
    {config_key_of("SERVICE_HASH", "DAILY_UPDATE_SCRIPT"), take_daily_update_script},
    {config_key_of("SERVICE_HASH", "DAILY_UPDATE_YN"), take_daily_update_yn},
    {config_key_of("TRAN_LOGF", "LOG_INTERFACE"), take_text<log_interface>},
    {config_key_of("TRAN_LOGF", "TR_SECTION"), take_text<tr_section>},
    {config_key_of("CHECK_FILES", "SVC_UPDATE_CHK_FILE"), take_svc_update_chk_file},
    {config_key_of("PTRC_HASH", "TRC_STS_CHECK_PERIOD"), take_trc_sts_check_period},
    {config_key_of("IPC_SHARED_MEMORY", "PTRC_HASH_TBL_SHMKEY"), take_number<ptrc_hash_tbl_shmkey>},
    {config_key_of("IPC_SEMAPHORE", "PTRC_HASH_TBL_SEMKEY"), take_number<ptrc_hash_tbl_semkey>},
    {config_key_of("IPC_SHARED_MEMORY", "JCACHE_HASH_TBL_SHMKEY"),
     take_number<jcache_hash_tbl_shmkey>},
    {config_key_of("IPC_SEMAPHORE", "JCACHE_HASH_TBL_SEMKEY"), take_number<jcache_hash_tbl_semkey>},
    {config_key_of("SERVICE_HASH", "DEFAULT_TIMEOUT_SEC"), take_number<default_timeout_sec>},
    {config_key_of("IPC_SHARED_MEMORY", "TRAN_AGT_SHMKEY"), take_number<tran_agt_shmkey>},
    {config_key_of("IPC_SEMAPHORE", "TRAN_AGT_SEMKEY"), take_number<tran_agt_semkey>},
    {config_key_of("CHECK_API_STAT", "ACT"), take_api_stat_out},
    {config_key_of("TRAN_AGENT", "ALLOWED_ADDRESSES"), take_allowed_addresses},
    {config_key_of("TRAN_AGENT", "REMOTE_COMMANDS_YN"), take_remote_commands},
    {config_key_of("TRAN_AGENT", "AUDIT_YN"), take_audit},
};

constexpr bool is_of_start(const agt::config_key& key) {
    return key.reader == agt::key_reader::start;
}
static_assert(are_all_steps(CFG_STEPS, is_of_start),
              "the table has a key without a step in its place");

// A file that cannot be read does not say that a key is absent.
bool take_key(const cfg_step& step) {
    std::string value;
    const cfg_answer answer = read_cfg(step.key, &value);
    if (answer == cfg_answer::found)
        return step.take(value.c_str());
    if (answer == cfg_answer::unreadable) {
        agt::log_printf("<!> %s %s : cannot be read, errno : %d", step.key.section,
                        step.key.keyword, errno);
        return false;
    }
    if (step.key.absence == agt::key_absence::passes_daily_update)
        agt::log_printf(">> Pass DAILY_UPDATE_HHMI");
    return step.key.may_be_absent();
}

bool check_variable(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr) {
        agt::say("<!> please, check environment-variable (%s)\n", name);
        return false;
    }
    agt::say("ok, get environment-variable (%s : %s)\n", name, value);
    return true;
}

int check_env_var() {
    return check_variable("TRAN_AGT_HOME") && check_variable("TRAN_AGT_CFG_FILE") ? 1 : 0;
}

int init_config() {
    const agt::lock_guard guard(cfg_mutex);
    const auto* after_log = std::begin(CFG_STEPS) + 1; // in which the fence says what it finds
    if (!std::all_of(std::begin(CFG_STEPS), after_log, take_key) || !fence_cfg() ||
        !std::all_of(after_log, std::end(CFG_STEPS), take_key))
        return 0;
    agt::log_printf("(i) config-file(%s) read complete. TCP_CMD_MSG size %d bytes", cfg_file(),
                    TCP_CMD_MSG_SIZE);
    return 1;
}

// Puts back the service filter that a retrieval had switched off when its daemon was killed; unless
// somebody has set it since, or a new segment has none yet.
void put_filter_back(bool existed) {
    const std::int64_t left = agt::shared_load(figures->filter_switched_off);
    if (existed && left != 0 && left != STATE_FILTER_NONE && get_svc_filtering() == 0) {
        set_svc_filtering(static_cast<signed char>(left));
        agt::log_printf("(i) service filter put back to %d, a retrieval was killed",
                        get_svc_filtering());
    }
    figure_set(figures->filter_switched_off, STATE_FILTER_NONE);
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
        if (!read_cfg_number(config_key_of("TRAN_LOGF", "QUE_CNT"), &qcnt))
            return false;
        set_tran_logf_qcnt(qcnt);
    }
    log_object_complete(agt::SETTINGS_SEGMENT, key, existed != 0);
    put_filter_back(existed != 0);
    if (get_tran_logf_qcnt() < 1)
        agt::log_printf("<!> tran_logf_que_info names %d log queues, left by a start that failed. "
                        "(stop the agent, run kessctl clean, start it)",
                        get_tran_logf_qcnt());
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
