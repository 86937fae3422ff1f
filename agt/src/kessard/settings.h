// Settings from the configuration file. All but the server's address are written once at start,
// before any thread exists, and only read afterwards.
#pragma once

#include <cstddef>

namespace kessard {

// COMMON / LOG_HOME: base of the log directory.
inline char log_home_dir[512];

// TRAN_AGENT / IP_ADDRESS and CMD_PORT: where the daemon listens.
inline char agt_ipaddr[20];
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
inline char update_service_script[256];
inline bool daily_update_yn = false;
inline int default_timeout_sec = 0;

// TRAN_LOGF / LOG_INTERFACE (two characters) and TR_SECTION (one character).
inline char log_interface[3];
inline char tr_section[2];

// CHECK_FILES / SVC_UPDATE_CHK_FILE: the forced-update trigger.
inline char svc_update_chk_fn[256];

// PTRC_HASH / TRC_STS_CHECK_PERIOD: seconds between sweeps of the trace table.
inline int trc_sts_check_period = 0;

// CHECK_API_STAT / ACT, 4th word: the API statistics file.
inline char api_stat_out_fn[512];

// The central server's command port. A reconnection of the notify link may change it at any time,
// so it is read as a whole copy.
struct server_address {
    char srv_ipaddr[128];
    int srv_cmd_port;
};

// From any thread.
server_address get_server_address();
void set_server_address(const char* ipaddr, int port);

// The configuration file's path, from the environment variable TRAN_AGT_CFG_FILE; empty when it is
// not set.
const char* cfg_file();

// The first word of a key of the configuration file; `word` holds agt::CFG_WORD_SIZE bytes. False
// when it is missing.
bool read_cfg_word(const char* section, const char* keyword, char* word);

// The same as a decimal number.
bool read_cfg_number(const char* section, const char* keyword, int* number);

} // namespace kessard
