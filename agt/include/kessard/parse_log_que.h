/* The parse-log queues: 16 ring queues read by the agent's log parser; the daemon writes event
 * records into queue 0. Keys PARSE_LOG_QUE_SHMKEY and PARSE_LOG_QUE_SEMKEY (16 semaphores; writers
 * of queue q hold semaphore q with SEM_UNDO around each put). Indexes work as in the notification
 * queue. */
#ifndef KESSARD_PARSE_LOG_QUE_H
#define KESSARD_PARSE_LOG_QUE_H

#include <time.h>

#include "svc_hash_tbl.h"

enum { PARSE_LOG_QUE_SLOTS = 32768, PARSE_LOG_QUE_POOL_SIZE = 16 };

typedef struct {
    char log_type[2];
    char log_interface[3];
    char tr_section[2];
    char gid[33];
    char server_id[16];
    char service_id[17];
    char host_name[65];
    char pid[9];
    char tid[16];
    char idx[6];
    char pidx[6];
    char log_day[9];   /* YYYYMMDD */
    char log_time[13]; /* HHMMSS and six digits of microseconds */
} TRAN_LOG_HDR_FMT;

typedef struct {
    char evt_id[5];
    char evt_tr_cd[13];
    char evt_info_fld[5];
    char evt_info_str[513];
} TRAN_EVENT_BDY_FMT;

typedef struct {
    TRAN_LOG_HDR_FMT hdr;
    union {
        TRAN_EVENT_BDY_FMT evt_log;
        char other[536]; /* the bodies of the other log types */
    } bdy;
} TRAN_LOG_FMT;

typedef struct {
    TRAN_LOG_FMT keep_log;
    SVC_HASH_ARR keep_svc;
    int pre_log_idx;
    struct timespec exe_time[2];
    int action_timer[4];
    int db_exe_time;
    char result_flag;
    short log_flag;
    char rt_ctrl_set[8];
} LOG_HASH_ARR;

typedef struct {
    int front;
    int rear;
} PARSE_LOG_QUE_INFO;

typedef struct {
    LOG_HASH_ARR parse_log;
} PARSE_LOG_QUE_DATA;

typedef struct {
    PARSE_LOG_QUE_INFO info;
    PARSE_LOG_QUE_DATA data[PARSE_LOG_QUE_SLOTS];
} PARSE_LOG_QUE;

typedef struct {
    PARSE_LOG_QUE que[PARSE_LOG_QUE_POOL_SIZE];
} PARSE_LOG_QUE_POOL;

KESSARD_SIZE(TRAN_LOG_HDR_FMT, 197);
KESSARD_AT(TRAN_LOG_HDR_FMT, log_interface, 2);
KESSARD_AT(TRAN_LOG_HDR_FMT, tr_section, 5);
KESSARD_AT(TRAN_LOG_HDR_FMT, gid, 7);
KESSARD_AT(TRAN_LOG_HDR_FMT, server_id, 40);
KESSARD_AT(TRAN_LOG_HDR_FMT, service_id, 56);
KESSARD_AT(TRAN_LOG_HDR_FMT, host_name, 73);
KESSARD_AT(TRAN_LOG_HDR_FMT, pid, 138);
KESSARD_AT(TRAN_LOG_HDR_FMT, tid, 147);
KESSARD_AT(TRAN_LOG_HDR_FMT, idx, 163);
KESSARD_AT(TRAN_LOG_HDR_FMT, pidx, 169);
KESSARD_AT(TRAN_LOG_HDR_FMT, log_day, 175);
KESSARD_AT(TRAN_LOG_HDR_FMT, log_time, 184);
KESSARD_SIZE(TRAN_EVENT_BDY_FMT, 536);
KESSARD_AT(TRAN_EVENT_BDY_FMT, evt_tr_cd, 5);
KESSARD_AT(TRAN_EVENT_BDY_FMT, evt_info_fld, 18);
KESSARD_AT(TRAN_EVENT_BDY_FMT, evt_info_str, 23);
KESSARD_SIZE(TRAN_LOG_FMT, 733);
KESSARD_AT(TRAN_LOG_FMT, bdy, 197);
KESSARD_SIZE(LOG_HASH_ARR, 944);
KESSARD_AT(LOG_HASH_ARR, keep_svc, 736);
KESSARD_AT(LOG_HASH_ARR, pre_log_idx, 872);
KESSARD_AT(LOG_HASH_ARR, exe_time, 880);
KESSARD_AT(LOG_HASH_ARR, action_timer, 912);
KESSARD_AT(LOG_HASH_ARR, db_exe_time, 928);
KESSARD_AT(LOG_HASH_ARR, result_flag, 932);
KESSARD_AT(LOG_HASH_ARR, log_flag, 934);
KESSARD_AT(LOG_HASH_ARR, rt_ctrl_set, 936);
KESSARD_SIZE(PARSE_LOG_QUE_INFO, 8);
KESSARD_AT(PARSE_LOG_QUE_INFO, rear, 4);
KESSARD_SIZE(PARSE_LOG_QUE_DATA, 944);
KESSARD_SIZE(PARSE_LOG_QUE, 30933000);
KESSARD_AT(PARSE_LOG_QUE, data, 8);
KESSARD_SIZE(PARSE_LOG_QUE_POOL, 494928000);

#endif
