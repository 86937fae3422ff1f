/* The agent segment: process registry, alert settings, log collectors, queue statistics and host
 * description, shared by all agent processes. Keys TRAN_AGT_SHMKEY and TRAN_AGT_SEMKEY (8
 * semaphores; semaphore 0 is held around creation). A new segment is all zero bytes. */
#ifndef KESSARD_TRAN_AGT_SHM_H
#define KESSARD_TRAN_AGT_SHM_H

#include <sys/types.h>
#include <time.h>

#include "layout.h"

enum {
    DIR_CLEANUP_MAX = 64,
    PROCESS_INFO_MAX = 68,
    FILE_SYSTEM_MAX = 5,
    LOG_PROC_MAX = 16,
    LOG_FILE_MAX = 512,
    LOG_DIR_MAX = 20,
    TMP_LOG_FILE_MAX = 10000,
    LOG_STAT_MAX = 17,
    QUE_STAT_MAX = 16,
    ACT_SVC_LIMIT_MAX = 42,
    DIR_MODI_TIME_MAX = 100,
    FILE_SKIP_PATTERN_MAX = 100,
    FILE_FORMAT_MAX = 100,
    FNUM_FILE_LIST_MAX = 8,
    FILE_LIST_MAX = 300,
    TRAN_AGT_SEM_COUNT = 8
};

/* cur_sts of a process that is not running. */
enum { PROCESS_DEACT = 0 };

typedef struct {
    int timeup_sec; /* age in seconds after which a file is removed */
    char path[257];
} DIR_CLEANUP;

typedef struct {
    int proc_idx;        /* this row */
    pid_t proc_pid;      /* the process that owns the row */
    char proc_bin[51];   /* program name */
    char exec_args[257]; /* command line that starts it */
    int exec_args_num;
    char cur_sts; /* current state */
    char act_sts; /* wanted state, same codes */
    unsigned char cur_retry_cnt;
    unsigned char set_retry_cnt;
    int chk_retry_cnt_sec; /* seconds over which restarts are counted */
    time_t proc_uptime;
    char proc_sign;
} PROCESS_INFO;

typedef struct {
    int alert_cnt;         /* alerts raised so far */
    int alert_pcnt;        /* per cent full at which to alert */
    char file_system[257]; /* mount point */
} FILE_SYSTEM;

typedef struct {
    int alert_sec;  /* seconds the load must last */
    int alert_pcnt; /* per cent */
} CPU;

typedef struct {
    int file_idx;
    int log_type;
    int msg_type;
    int read_type;
    char file_name[257];
    unsigned long file_inode;
    void* fpbin; /* valid only inside the process that opened it */
    long offset_pos;
    int act_sts;
    int cur_sts;
    int get_line_cnt;
    int line_buf_len;
    char line_buf[2049];
    time_t last_update;
} LOG_FILE_LIST;

typedef struct {
    int cnt;
    LOG_FILE_LIST list[LOG_FILE_MAX];
} LOG_PROC;

typedef struct {
    int log_type;
    int dist_from;
    int dist_to;
    char log_dir[1025];
    int incl_sub_dir;
    int act_sts;
    int get_line_cnt;
    int read_type;
    char clear_tm[5];
    int clear_yn;
} LOG_DIR_LIST;

typedef struct {
    int cnt;
    LOG_DIR_LIST list[LOG_DIR_MAX];
} LOG_DIR;

typedef struct {
    int proc_id;
    char file_name[257];
} TMP_LOG_FILE_LIST;

typedef struct {
    int cnt;
    TMP_LOG_FILE_LIST list[TMP_LOG_FILE_MAX];
} TMP_LOG_FILE;

typedef struct {
    unsigned int log_type1;
    unsigned int log_type2;
    unsigned int log_type9;
    unsigned int log_typeI;
    unsigned int log_typeX;
    unsigned int log_typeB;
    unsigned int log_typeQ;
    unsigned int log_typeC;
    unsigned int log_typeE;
    unsigned int log_typeV;
    unsigned int S_msgs;
    unsigned int P_msgs;
    unsigned int F_msgs;
    unsigned int G_msgs;
    unsigned int E_msgs;
    unsigned int D_msgs;
    unsigned int R_msgs;
    unsigned int Y_msgs;
    unsigned int O_msgs;
    unsigned int I_msgs;
    unsigned int X_msgs;
    unsigned int B_msgs;
    unsigned int Q_msgs;
    unsigned int C_msgs;
    unsigned int J_msgs;
    unsigned int V_msgs;
    unsigned int N_msgs;
    unsigned int U_msgs;
    unsigned int A_msgs;
    unsigned int discard_logs;
    unsigned int return_null;
    unsigned int return_keep_state;
} LOG_STAT;

typedef struct {
    unsigned int in_qcnt;
    unsigned int in_discard_qcnt;
    unsigned int out_qcnt;
    unsigned int out_discard_qcnt;
    unsigned int cur_qcnt;
    float log_hashtbl_used_pcnt; /* per cent */
} QUE_STAT;

typedef struct {
    int pattern_refresh; /* a four-byte truth value: 0 or 1 */
    int pattern_cnt;
    char* pattern[FILE_SKIP_PATTERN_MAX]; /* into pattern_string, valid only inside one process */
    char pattern_string[1025];
} FILE_SKIP_PATTERN;

typedef struct {
    int idx;
    char host_name[65];
    char cont_name[31];
    char format_name[129];
    char format_dir[129];
    char backup_dir[129];
} FILE_FORMAT;

typedef struct {
    int idx;
    int q_num;
    char file_name[129];
    char format_name[129];
    char cont_name[31];
    char backup_dir[129];
    char exist;
} FILE_LIST;

typedef struct {
    int file_cnt;
    time_t file_time;
    FILE_LIST file_list[FILE_LIST_MAX];
} FNUM_FILE_LIST;

typedef struct {
    int tracer_cnt;
    int format_cnt;
    int file_cnt;
    time_t dir_modi_time_list[DIR_MODI_TIME_MAX];
    FILE_SKIP_PATTERN skip_pattern;
    FILE_FORMAT file_format[FILE_FORMAT_MAX];
    FNUM_FILE_LIST fnum_file_list[FNUM_FILE_LIST_MAX];
} TRACER_FILE_INFO;

typedef struct {
    char host_name[65];
    char os_info[201];
    int core_cnt;
    double mem_total;
} DEVICE_INFO;

typedef struct {
    int dir_num;      /* used rows of dir_cleanup */
    int proc_num;     /* used rows of proc_info */
    int file_sys_num; /* used rows of file_system */
    DIR_CLEANUP dir_cleanup[DIR_CLEANUP_MAX];
    PROCESS_INFO proc_info[PROCESS_INFO_MAX];
    FILE_SYSTEM file_system[FILE_SYSTEM_MAX];
    CPU cpu;
    LOG_PROC log_proc[LOG_PROC_MAX];
    LOG_DIR log_dir;
    TMP_LOG_FILE tmp_log_file;
    LOG_STAT log_stat[LOG_STAT_MAX];
    QUE_STAT que_stat[QUE_STAT_MAX];
    int act_svc_limit[ACT_SVC_LIMIT_MAX];
    TRACER_FILE_INFO tracer_file_info;
    DEVICE_INFO device_info;
} TRAN_AGT_SHM;

KESSARD_SIZE(DIR_CLEANUP, 264);
KESSARD_AT(DIR_CLEANUP, path, 4);
KESSARD_SIZE(PROCESS_INFO, 344);
KESSARD_AT(PROCESS_INFO, proc_pid, 4);
KESSARD_AT(PROCESS_INFO, proc_bin, 8);
KESSARD_AT(PROCESS_INFO, exec_args, 59);
KESSARD_AT(PROCESS_INFO, exec_args_num, 316);
KESSARD_AT(PROCESS_INFO, cur_sts, 320);
KESSARD_AT(PROCESS_INFO, act_sts, 321);
KESSARD_AT(PROCESS_INFO, cur_retry_cnt, 322);
KESSARD_AT(PROCESS_INFO, set_retry_cnt, 323);
KESSARD_AT(PROCESS_INFO, chk_retry_cnt_sec, 324);
KESSARD_AT(PROCESS_INFO, proc_uptime, 328);
KESSARD_AT(PROCESS_INFO, proc_sign, 336);
KESSARD_SIZE(FILE_SYSTEM, 268);
KESSARD_AT(FILE_SYSTEM, alert_pcnt, 4);
KESSARD_AT(FILE_SYSTEM, file_system, 8);
KESSARD_SIZE(CPU, 8);
KESSARD_AT(CPU, alert_pcnt, 4);
KESSARD_SIZE(LOG_FILE_LIST, 2384);
KESSARD_AT(LOG_FILE_LIST, log_type, 4);
KESSARD_AT(LOG_FILE_LIST, msg_type, 8);
KESSARD_AT(LOG_FILE_LIST, read_type, 12);
KESSARD_AT(LOG_FILE_LIST, file_name, 16);
KESSARD_AT(LOG_FILE_LIST, file_inode, 280);
KESSARD_AT(LOG_FILE_LIST, fpbin, 288);
KESSARD_AT(LOG_FILE_LIST, offset_pos, 296);
KESSARD_AT(LOG_FILE_LIST, act_sts, 304);
KESSARD_AT(LOG_FILE_LIST, cur_sts, 308);
KESSARD_AT(LOG_FILE_LIST, get_line_cnt, 312);
KESSARD_AT(LOG_FILE_LIST, line_buf_len, 316);
KESSARD_AT(LOG_FILE_LIST, line_buf, 320);
KESSARD_AT(LOG_FILE_LIST, last_update, 2376);
KESSARD_SIZE(LOG_PROC, 1220616);
KESSARD_AT(LOG_PROC, list, 8);
KESSARD_SIZE(LOG_DIR_LIST, 1068);
KESSARD_AT(LOG_DIR_LIST, dist_from, 4);
KESSARD_AT(LOG_DIR_LIST, dist_to, 8);
KESSARD_AT(LOG_DIR_LIST, log_dir, 12);
KESSARD_AT(LOG_DIR_LIST, incl_sub_dir, 1040);
KESSARD_AT(LOG_DIR_LIST, act_sts, 1044);
KESSARD_AT(LOG_DIR_LIST, get_line_cnt, 1048);
KESSARD_AT(LOG_DIR_LIST, read_type, 1052);
KESSARD_AT(LOG_DIR_LIST, clear_tm, 1056);
KESSARD_AT(LOG_DIR_LIST, clear_yn, 1064);
KESSARD_SIZE(LOG_DIR, 21364);
KESSARD_AT(LOG_DIR, list, 4);
KESSARD_SIZE(TMP_LOG_FILE_LIST, 264);
KESSARD_AT(TMP_LOG_FILE_LIST, file_name, 4);
KESSARD_SIZE(TMP_LOG_FILE, 2640004);
KESSARD_AT(TMP_LOG_FILE, list, 4);
KESSARD_SIZE(LOG_STAT, 128);
KESSARD_AT(LOG_STAT, log_typeV, 36);
KESSARD_AT(LOG_STAT, S_msgs, 40);
KESSARD_AT(LOG_STAT, A_msgs, 112);
KESSARD_AT(LOG_STAT, discard_logs, 116);
KESSARD_AT(LOG_STAT, return_keep_state, 124);
KESSARD_SIZE(QUE_STAT, 24);
KESSARD_AT(QUE_STAT, in_discard_qcnt, 4);
KESSARD_AT(QUE_STAT, out_qcnt, 8);
KESSARD_AT(QUE_STAT, out_discard_qcnt, 12);
KESSARD_AT(QUE_STAT, cur_qcnt, 16);
KESSARD_AT(QUE_STAT, log_hashtbl_used_pcnt, 20);
KESSARD_SIZE(FILE_SKIP_PATTERN, 1840);
KESSARD_AT(FILE_SKIP_PATTERN, pattern_cnt, 4);
KESSARD_AT(FILE_SKIP_PATTERN, pattern, 8);
KESSARD_AT(FILE_SKIP_PATTERN, pattern_string, 808);
KESSARD_SIZE(FILE_FORMAT, 488);
KESSARD_AT(FILE_FORMAT, host_name, 4);
KESSARD_AT(FILE_FORMAT, cont_name, 69);
KESSARD_AT(FILE_FORMAT, format_name, 100);
KESSARD_AT(FILE_FORMAT, format_dir, 229);
KESSARD_AT(FILE_FORMAT, backup_dir, 358);
KESSARD_SIZE(FILE_LIST, 428);
KESSARD_AT(FILE_LIST, q_num, 4);
KESSARD_AT(FILE_LIST, file_name, 8);
KESSARD_AT(FILE_LIST, format_name, 137);
KESSARD_AT(FILE_LIST, cont_name, 266);
KESSARD_AT(FILE_LIST, backup_dir, 297);
KESSARD_AT(FILE_LIST, exist, 426);
KESSARD_SIZE(FNUM_FILE_LIST, 128416);
KESSARD_AT(FNUM_FILE_LIST, file_time, 8);
KESSARD_AT(FNUM_FILE_LIST, file_list, 16);
KESSARD_SIZE(TRACER_FILE_INFO, 1078784);
KESSARD_AT(TRACER_FILE_INFO, format_cnt, 4);
KESSARD_AT(TRACER_FILE_INFO, file_cnt, 8);
KESSARD_AT(TRACER_FILE_INFO, dir_modi_time_list, 16);
KESSARD_AT(TRACER_FILE_INFO, skip_pattern, 816);
KESSARD_AT(TRACER_FILE_INFO, file_format, 2656);
KESSARD_AT(TRACER_FILE_INFO, fnum_file_list, 51456);
KESSARD_SIZE(DEVICE_INFO, 280);
KESSARD_AT(DEVICE_INFO, os_info, 65);
KESSARD_AT(DEVICE_INFO, core_cnt, 268);
KESSARD_AT(DEVICE_INFO, mem_total, 272);
KESSARD_SIZE(TRAN_AGT_SHM, 23314672);
KESSARD_AT(TRAN_AGT_SHM, proc_num, 4);
KESSARD_AT(TRAN_AGT_SHM, file_sys_num, 8);
KESSARD_AT(TRAN_AGT_SHM, dir_cleanup, 12);
KESSARD_AT(TRAN_AGT_SHM, proc_info, 16912);
KESSARD_AT(TRAN_AGT_SHM, file_system, 40304);
KESSARD_AT(TRAN_AGT_SHM, cpu, 41644);
KESSARD_AT(TRAN_AGT_SHM, log_proc, 41656);
KESSARD_AT(TRAN_AGT_SHM, log_dir, 19571512);
KESSARD_AT(TRAN_AGT_SHM, tmp_log_file, 19592876);
KESSARD_AT(TRAN_AGT_SHM, log_stat, 22232880);
KESSARD_AT(TRAN_AGT_SHM, que_stat, 22235056);
KESSARD_AT(TRAN_AGT_SHM, act_svc_limit, 22235440);
KESSARD_AT(TRAN_AGT_SHM, tracer_file_info, 22235608);
KESSARD_AT(TRAN_AGT_SHM, device_info, 23314392);

#endif
