/* The process-trace table: one entry per traced process or thread, filled by the tracers, swept by
 * the daemon. Keys PTRC_HASH_TBL_SHMKEY and PTRC_HASH_TBL_SEMKEY (one semaphore). Same index-linked
 * scheme as the service table. */
#ifndef KESSARD_PTRC_HASH_TBL_H
#define KESSARD_PTRC_HASH_TBL_H

#include <sys/time.h>
#include <sys/types.h>
#include <time.h>

#include "layout.h"

enum {
    PTRC_HASH_BUCKETS = 65536,
    PTRC_HASH_SLOTS = 10000,
    PTRC_VAR_MAX = 10,
    PTRC_CALL_DEPTH_MAX = 51,
    PTRC_SQL_STMT_MAX = 5
};

typedef struct {
    char gid[33];
    char service_id[17];
    char tr_cd[13];
} PTRC_VAR;

typedef struct {
    struct timeval s_tm;
    struct timeval f_tm;
    char log_type;
    int call_seq;
    char called_func[71];
    char my_func[71];
    char file_name[101];
    unsigned int line;
    int called_func_hash;
    int rc;
    int err_rc_flag;
    long keep_func_usec;
    long keep_dbio_usec;
} CALL_TRC_DEPTH;

/* Kept SQL statements; their inside belongs to the tracers. */
typedef struct {
    long opaque[1064];
} TRAN_SQL_STMT_KEEP_LOG;

typedef struct {
    char gid[33];
    char service_id[17];
    char tr_cd[13];
    PTRC_VAR ptrc_var[PTRC_VAR_MAX];
    char service_depth;
    char rsv_fld[8];
    char proc_nm[31]; /* process name */
    char cont_nm[31];
    char pid[9];  /* decimal text */
    char tid[16]; /* text; fifteen '0' mark a process entry */
    char idx[6];
    pid_t _pid;
    unsigned long _tid; /* pthread_t of the thread; 0 in a process entry */
    char ss_flag;
    char ss_tr_cd[13];
    time_t ss_set_tm;
    struct timeval t_tm;
    struct timeval s_tm;
    struct timeval f_tm;
    char trc_sts; /* trace state letter */
    char isalive; /* 0 dead, 1 alive, 2 and above kept as the tracer set it */
    signed char in_depth;
    signed char post_call_trc_depth;
    signed char show_call_trc_depth;
    int cur_call_trc_depth;
    int call_seq;
    char write_qidx;
    char evt_flag;
    char chk_elps_sec; /* seconds since the last liveness check */
    char show_dbio_flag;
    long show_call_trc_limit;
    long show_dbio_trc_limit;
    long show_sql_trc_limit;
    CALL_TRC_DEPTH call_trc_depth_list[PTRC_CALL_DEPTH_MAX];
    long db_exe_usec;
    int sql_stmt_keep_cnt;
    TRAN_SQL_STMT_KEEP_LOG sql_stmt_keep_log[PTRC_SQL_STMT_MAX];
    char keep_sql_id[201];
    char err_rc_set[128];
    long sqlca_sqlcode;
    char sqlerr_msg[101];
    int fetch_row_cnt;
    int fetch_time;
    int src_line_no;
    int acc_fetch_update_cnt;
    int acc_fetch_row_cnt;
    int acc_fetch_time;
    char db_user[11];
    char db_sid[11];
    time_t lasted_access; /* when the tracer last touched the entry */
} PTRC_HASH_ARR;

typedef struct {
    unsigned int my_idx;
    int hash_idx;
    int pre_idx;
    int next_idx;
    PTRC_HASH_ARR param;
} PTRC_HASH_ARR_LIST;

typedef struct {
    unsigned int top;
    unsigned int idx[PTRC_HASH_SLOTS];
} PTRC_HASH_STK;

typedef struct {
    unsigned int alloc_cnt;
    int h_idx[PTRC_HASH_BUCKETS];
    PTRC_HASH_ARR_LIST h_arr[PTRC_HASH_SLOTS];
    PTRC_HASH_STK available;
    PTRC_HASH_STK used;
} PTRC_HASH_TBL;

KESSARD_SIZE(PTRC_VAR, 63);
KESSARD_AT(PTRC_VAR, service_id, 33);
KESSARD_AT(PTRC_VAR, tr_cd, 50);
KESSARD_SIZE(CALL_TRC_DEPTH, 320);
KESSARD_AT(CALL_TRC_DEPTH, f_tm, 16);
KESSARD_AT(CALL_TRC_DEPTH, log_type, 32);
KESSARD_AT(CALL_TRC_DEPTH, call_seq, 36);
KESSARD_AT(CALL_TRC_DEPTH, called_func, 40);
KESSARD_AT(CALL_TRC_DEPTH, my_func, 111);
KESSARD_AT(CALL_TRC_DEPTH, file_name, 182);
KESSARD_AT(CALL_TRC_DEPTH, line, 284);
KESSARD_AT(CALL_TRC_DEPTH, called_func_hash, 288);
KESSARD_AT(CALL_TRC_DEPTH, rc, 292);
KESSARD_AT(CALL_TRC_DEPTH, err_rc_flag, 296);
KESSARD_AT(CALL_TRC_DEPTH, keep_func_usec, 304);
KESSARD_AT(CALL_TRC_DEPTH, keep_dbio_usec, 312);
KESSARD_SIZE(TRAN_SQL_STMT_KEEP_LOG, 8512);
KESSARD_SIZE(PTRC_HASH_ARR, 60328);
KESSARD_AT(PTRC_HASH_ARR, service_id, 33);
KESSARD_AT(PTRC_HASH_ARR, tr_cd, 50);
KESSARD_AT(PTRC_HASH_ARR, ptrc_var, 63);
KESSARD_AT(PTRC_HASH_ARR, service_depth, 693);
KESSARD_AT(PTRC_HASH_ARR, rsv_fld, 694);
KESSARD_AT(PTRC_HASH_ARR, proc_nm, 702);
KESSARD_AT(PTRC_HASH_ARR, cont_nm, 733);
KESSARD_AT(PTRC_HASH_ARR, pid, 764);
KESSARD_AT(PTRC_HASH_ARR, tid, 773);
KESSARD_AT(PTRC_HASH_ARR, idx, 789);
KESSARD_AT(PTRC_HASH_ARR, _pid, 796);
KESSARD_AT(PTRC_HASH_ARR, _tid, 800);
KESSARD_AT(PTRC_HASH_ARR, ss_flag, 808);
KESSARD_AT(PTRC_HASH_ARR, ss_tr_cd, 809);
KESSARD_AT(PTRC_HASH_ARR, ss_set_tm, 824);
KESSARD_AT(PTRC_HASH_ARR, t_tm, 832);
KESSARD_AT(PTRC_HASH_ARR, s_tm, 848);
KESSARD_AT(PTRC_HASH_ARR, f_tm, 864);
KESSARD_AT(PTRC_HASH_ARR, trc_sts, 880);
KESSARD_AT(PTRC_HASH_ARR, isalive, 881);
KESSARD_AT(PTRC_HASH_ARR, in_depth, 882);
KESSARD_AT(PTRC_HASH_ARR, post_call_trc_depth, 883);
KESSARD_AT(PTRC_HASH_ARR, show_call_trc_depth, 884);
KESSARD_AT(PTRC_HASH_ARR, cur_call_trc_depth, 888);
KESSARD_AT(PTRC_HASH_ARR, call_seq, 892);
KESSARD_AT(PTRC_HASH_ARR, write_qidx, 896);
KESSARD_AT(PTRC_HASH_ARR, evt_flag, 897);
KESSARD_AT(PTRC_HASH_ARR, chk_elps_sec, 898);
KESSARD_AT(PTRC_HASH_ARR, show_dbio_flag, 899);
KESSARD_AT(PTRC_HASH_ARR, show_call_trc_limit, 904);
KESSARD_AT(PTRC_HASH_ARR, show_dbio_trc_limit, 912);
KESSARD_AT(PTRC_HASH_ARR, show_sql_trc_limit, 920);
KESSARD_AT(PTRC_HASH_ARR, call_trc_depth_list, 928);
KESSARD_AT(PTRC_HASH_ARR, db_exe_usec, 17248);
KESSARD_AT(PTRC_HASH_ARR, sql_stmt_keep_cnt, 17256);
KESSARD_AT(PTRC_HASH_ARR, sql_stmt_keep_log, 17264);
KESSARD_AT(PTRC_HASH_ARR, keep_sql_id, 59824);
KESSARD_AT(PTRC_HASH_ARR, err_rc_set, 60025);
KESSARD_AT(PTRC_HASH_ARR, sqlca_sqlcode, 60160);
KESSARD_AT(PTRC_HASH_ARR, sqlerr_msg, 60168);
KESSARD_AT(PTRC_HASH_ARR, fetch_row_cnt, 60272);
KESSARD_AT(PTRC_HASH_ARR, fetch_time, 60276);
KESSARD_AT(PTRC_HASH_ARR, src_line_no, 60280);
KESSARD_AT(PTRC_HASH_ARR, acc_fetch_update_cnt, 60284);
KESSARD_AT(PTRC_HASH_ARR, acc_fetch_row_cnt, 60288);
KESSARD_AT(PTRC_HASH_ARR, acc_fetch_time, 60292);
KESSARD_AT(PTRC_HASH_ARR, db_user, 60296);
KESSARD_AT(PTRC_HASH_ARR, db_sid, 60307);
KESSARD_AT(PTRC_HASH_ARR, lasted_access, 60320);
KESSARD_SIZE(PTRC_HASH_ARR_LIST, 60344);
KESSARD_AT(PTRC_HASH_ARR_LIST, hash_idx, 4);
KESSARD_AT(PTRC_HASH_ARR_LIST, pre_idx, 8);
KESSARD_AT(PTRC_HASH_ARR_LIST, next_idx, 12);
KESSARD_AT(PTRC_HASH_ARR_LIST, param, 16);
KESSARD_SIZE(PTRC_HASH_STK, 40004);
KESSARD_AT(PTRC_HASH_STK, idx, 4);
KESSARD_SIZE(PTRC_HASH_TBL, 603782160);
KESSARD_AT(PTRC_HASH_TBL, h_idx, 4);
KESSARD_AT(PTRC_HASH_TBL, h_arr, 262152);
KESSARD_AT(PTRC_HASH_TBL, available, 603702152);
KESSARD_AT(PTRC_HASH_TBL, used, 603742156);

#endif
