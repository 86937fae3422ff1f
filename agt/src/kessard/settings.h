// Settings from the configuration file. All but the server's address are written once at start,
// before any thread exists, and only read afterwards.
#pragma once

#include <span>
#include <string>

#include "config_keys.h"

namespace kessard {

// COMMON / LOG_HOME: base of the log directory.
inline agt::log_home_text log_home_dir;

// TRAN_AGENT / IP_ADDRESS and CMD_PORT: where the daemon listens.
inline agt::agt_ipaddr_text agt_ipaddr;
inline int agt_cmd_port = 0;

// IPC_SHARED_MEMORY / *_SHMKEY and IPC_SEMAPHORE / *_SEMKEY.
inline int tran_logf_que_info_shmkey = 0;
inline int svc_hash_tbl_shmkey = 0;
inline int noti_send_que_shmkey = 0;
inline int ptrc_hash_tbl_shmkey = 0;
inline int jcache_hash_tbl_shmkey = 0;
inline int tran_agt_shmkey = 0;
inline int svc_hash_tbl_semkey = 0;
inline int noti_send_que_semkey = 0;
inline int ptrc_hash_tbl_semkey = 0;
inline int jcache_hash_tbl_semkey = 0;
inline int tran_agt_semkey = 0;

// SERVICE_HASH / DAILY_UPDATE_HHMI (empty: none), DAILY_UPDATE_SCRIPT, DAILY_UPDATE_YN (whether the
// update triggers run the script; the key may be absent), DEFAULT_TIMEOUT_SEC (seconds).
inline char update_service_hhmi[16];
inline agt::update_script_text update_service_script;
inline bool daily_update_yn = false;
inline int default_timeout_sec = 0;

// TRAN_LOGF / LOG_INTERFACE (two characters) and TR_SECTION (one character). Nothing uses the
// latter: the watchdog, whose events name the section, reads the key itself into worker_cfg.
inline agt::log_interface_text log_interface;
inline agt::tr_section_text tr_section;

// CHECK_FILES / SVC_UPDATE_CHK_FILE: the forced-update trigger.
inline agt::update_trigger_text svc_update_chk_fn;

// PTRC_HASH / TRC_STS_CHECK_PERIOD: seconds between sweeps of the trace table.
inline int trc_sts_check_period = 0;

// CHECK_API_STAT / ACT, 4th word: the API statistics file.
inline agt::api_stat_out_text api_stat_out_fn;

// The central server's command port. A reconnection of the notify link may change it at any time,
// so it is read as a whole copy.
struct server_address {
    agt::srv_ipaddr_text srv_ipaddr;
    int srv_cmd_port;
};

// From any thread.
server_address get_server_address();
void set_server_address(const char* ipaddr, int port);

// The configuration file's path, from the environment variable TRAN_AGT_CFG_FILE; empty when it is
// not set.
const char* cfg_file();

enum class cfg_answer { found, absent, unreadable };

// Looks a key up in the configuration file. `value` changes only when the key is found; with an
// unreadable file errno says why. Unless the key's absence is silent, the reader says on standard
// error what it misses.
[[nodiscard]] cfg_answer read_cfg(const agt::config_key& key, std::string* value);

// A value as a decimal number, 0 for text that is none.
int to_number(const char* value);

// The same of a key in the file. False, with `number` as it was, when it is not found.
[[nodiscard]] bool read_cfg_number(const agt::config_key& key, int* number);

// Takes a switch. A value that is neither Y nor N is said in the log under the name and is not
// taken for either: false then.
[[nodiscard]] bool take_yes_no(const char* name, const char* value, bool* yes);

// What taking a key does.
struct cfg_step {
    const agt::config_key& key;
    bool (*take)(const char* value); // false ends what reads the key
};

// Whether there is a step for each key of the table that `is_read` chooses, in the table's order,
// and for no other.
consteval bool are_all_steps(std::span<const cfg_step> steps,
                             bool (*is_read)(const agt::config_key& key)) {
    std::size_t next = 0;
    for (const agt::config_key& key : agt::CONFIG_KEYS)
        if (is_read(key) && (next == steps.size() || &steps[next++].key != &key))
            return false;
    return next == steps.size();
}

} // namespace kessard
