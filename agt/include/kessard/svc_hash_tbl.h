/* The service table: monitored services by service id. Keys SVC_HASH_TBL_SHMKEY and
 * SVC_HASH_TBL_SEMKEY (one semaphore; whoever changes the table holds semaphore 0 with SEM_UNDO).
 * Everything is addressed by slot index, -1 is none. The bucket of a service is the one-at-a-time
 * hash of the 16 bytes of service_id, modulo SVC_HASH_BUCKETS. */
#ifndef KESSARD_SVC_HASH_TBL_H
#define KESSARD_SVC_HASH_TBL_H

#include "layout.h"

enum {
    SVC_HASH_BUCKETS = 65536,
    SVC_HASH_SLOTS = 10000,
    SVC_HASH_KEY_SIZE = 16 /* bytes of service_id that are the key */
};

typedef struct {
    char host_name[65];
    char server_id[16];
    char service_id[17];
    int call_trc_depth;
    long call_trc_limit;
    long dbio_trc_limit;
    long sql_trc_limit;
    int limit;      /* seconds */
    char uflag_set; /* LOG_FLAG_* */
    char tflag;     /* 0..9 */
    char is_sync;
    char reserved;
} SVC_HASH_ARR;

typedef struct {
    unsigned int my_idx; /* this slot */
    int hash_idx;        /* its bucket */
    int pre_idx;         /* slot before it in the chain */
    int next_idx;        /* slot after it */
    SVC_HASH_ARR param;
} SVC_HASH_ARR_LIST;

typedef struct {
    unsigned int top; /* entries in idx */
    unsigned int idx[SVC_HASH_SLOTS];
} SVC_HASH_STK;

typedef struct {
    unsigned int alloc_cnt;      /* entries in the table */
    int h_idx[SVC_HASH_BUCKETS]; /* first slot of each chain */
    SVC_HASH_ARR_LIST h_arr[SVC_HASH_SLOTS];
    SVC_HASH_STK available; /* free slots, handed out from the top */
    SVC_HASH_STK used;
} SVC_HASH_TBL;

KESSARD_SIZE(SVC_HASH_ARR, 136);
KESSARD_AT(SVC_HASH_ARR, server_id, 65);
KESSARD_AT(SVC_HASH_ARR, service_id, 81);
KESSARD_AT(SVC_HASH_ARR, call_trc_depth, 100);
KESSARD_AT(SVC_HASH_ARR, call_trc_limit, 104);
KESSARD_AT(SVC_HASH_ARR, dbio_trc_limit, 112);
KESSARD_AT(SVC_HASH_ARR, sql_trc_limit, 120);
KESSARD_AT(SVC_HASH_ARR, limit, 128);
KESSARD_AT(SVC_HASH_ARR, uflag_set, 132);
KESSARD_AT(SVC_HASH_ARR, tflag, 133);
KESSARD_AT(SVC_HASH_ARR, is_sync, 134);
KESSARD_AT(SVC_HASH_ARR, reserved, 135);
KESSARD_SIZE(SVC_HASH_ARR_LIST, 152);
KESSARD_AT(SVC_HASH_ARR_LIST, hash_idx, 4);
KESSARD_AT(SVC_HASH_ARR_LIST, pre_idx, 8);
KESSARD_AT(SVC_HASH_ARR_LIST, next_idx, 12);
KESSARD_AT(SVC_HASH_ARR_LIST, param, 16);
KESSARD_SIZE(SVC_HASH_STK, 40004);
KESSARD_AT(SVC_HASH_STK, idx, 4);
KESSARD_SIZE(SVC_HASH_TBL, 1862160);
KESSARD_AT(SVC_HASH_TBL, h_idx, 4);
KESSARD_AT(SVC_HASH_TBL, h_arr, 262152);
KESSARD_AT(SVC_HASH_TBL, available, 1782152);
KESSARD_AT(SVC_HASH_TBL, used, 1822156);

#endif
