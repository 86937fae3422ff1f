/* The runtime settings segment: the switches that the daemon hands to the tracing and logging
 * processes. Key TRAN_LOGF_QUE_INFO_SHMKEY; no semaphore guards it, every field is a single load or
 * store. */
#ifndef KESSARD_TRAN_LOGF_QUE_INFO_H
#define KESSARD_TRAN_LOGF_QUE_INFO_H

#include "layout.h"

enum {
    RC_SET_MAX = 128, /* return codes with an error setting */
    LOG_QUE_MAX = 16  /* log queues with a discard counter */
};

/* magic_code while tracing is on; any other value means off. */
#define TRACE_ON_MAGIC_CODE 0xAAAAAAAAu

/* Bits of log_flag_set and of a service's uflag_set. */
enum {
    LOG_FLAG_S = 0x01,
    LOG_FLAG_E = 0x02,
    LOG_FLAG_V = 0x04,
    LOG_FLAG_B = 0x08,
    LOG_FLAG_C = 0x10,
    LOG_FLAG_I = 0x20,
    LOG_FLAG_X = 0x40,
    LOG_FLAG_Q = 0x80
};

typedef struct {
    int qcnt;                        /* number of log queues, a power of two */
    int qcnt_mask;                   /* qcnt - 1 */
    unsigned int magic_code;         /* TRACE_ON_MAGIC_CODE: tracing is on */
    unsigned char log_flag_set;      /* LOG_FLAG_* */
    char fst_err_rc_set[RC_SET_MAX]; /* per return code: 0, 1 or 2 */
    int call_trc_depth;
    long call_trc_limit;
    long dbio_trc_limit;
    long sql_trc_limit;
    char svc_filtering;                      /* 0 off */
    char save_apilog_yn;                     /* one ASCII digit */
    char save_relllog_yn;                    /* one ASCII digit */
    unsigned int discard_qmsgs[LOG_QUE_MAX]; /* messages discarded per log queue */
} TRAN_LOGF_QUE_INFO;

KESSARD_SIZE(TRAN_LOGF_QUE_INFO, 248);
KESSARD_AT(TRAN_LOGF_QUE_INFO, qcnt_mask, 4);
KESSARD_AT(TRAN_LOGF_QUE_INFO, magic_code, 8);
KESSARD_AT(TRAN_LOGF_QUE_INFO, log_flag_set, 12);
KESSARD_AT(TRAN_LOGF_QUE_INFO, fst_err_rc_set, 13);
KESSARD_AT(TRAN_LOGF_QUE_INFO, call_trc_depth, 144);
KESSARD_AT(TRAN_LOGF_QUE_INFO, call_trc_limit, 152);
KESSARD_AT(TRAN_LOGF_QUE_INFO, dbio_trc_limit, 160);
KESSARD_AT(TRAN_LOGF_QUE_INFO, sql_trc_limit, 168);
KESSARD_AT(TRAN_LOGF_QUE_INFO, svc_filtering, 176);
KESSARD_AT(TRAN_LOGF_QUE_INFO, save_apilog_yn, 177);
KESSARD_AT(TRAN_LOGF_QUE_INFO, save_relllog_yn, 178);
KESSARD_AT(TRAN_LOGF_QUE_INFO, discard_qmsgs, 180);

#endif
