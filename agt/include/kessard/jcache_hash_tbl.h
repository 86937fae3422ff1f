/* The cache table: method names by hash code, filled and read by the tracers. Keys
 * JCACHE_HASH_TBL_SHMKEY and JCACHE_HASH_TBL_SEMKEY (one semaphore). Same index-linked scheme as
 * the service table. */
#ifndef KESSARD_JCACHE_HASH_TBL_H
#define KESSARD_JCACHE_HASH_TBL_H

#include <time.h>

#include "layout.h"

enum { JCACHE_HASH_BUCKETS = 4194304, JCACHE_HASH_SLOTS = 2000000 };

typedef struct {
    int hash_code;
    char package_arr[101];
    int package_len;
    char method_arr[71];
    int method_len;
    time_t lasted_access; /* when it was last used */
} JCACHE_HASH_ARR;

typedef struct {
    unsigned int my_idx;
    int hash_idx;
    int pre_idx;
    int next_idx;
    JCACHE_HASH_ARR param;
} JCACHE_HASH_ARR_LIST;

typedef struct {
    unsigned int top;
    unsigned int idx[JCACHE_HASH_SLOTS];
} JCACHE_HASH_STK;

typedef struct {
    unsigned int alloc_cnt;
    int h_idx[JCACHE_HASH_BUCKETS];
    JCACHE_HASH_ARR_LIST h_arr[JCACHE_HASH_SLOTS];
    JCACHE_HASH_STK available;
    JCACHE_HASH_STK used;
} JCACHE_HASH_TBL;

KESSARD_SIZE(JCACHE_HASH_ARR, 200);
KESSARD_AT(JCACHE_HASH_ARR, package_arr, 4);
KESSARD_AT(JCACHE_HASH_ARR, package_len, 108);
KESSARD_AT(JCACHE_HASH_ARR, method_arr, 112);
KESSARD_AT(JCACHE_HASH_ARR, method_len, 184);
KESSARD_AT(JCACHE_HASH_ARR, lasted_access, 192);
KESSARD_SIZE(JCACHE_HASH_ARR_LIST, 216);
KESSARD_AT(JCACHE_HASH_ARR_LIST, hash_idx, 4);
KESSARD_AT(JCACHE_HASH_ARR_LIST, pre_idx, 8);
KESSARD_AT(JCACHE_HASH_ARR_LIST, next_idx, 12);
KESSARD_AT(JCACHE_HASH_ARR_LIST, param, 16);
KESSARD_SIZE(JCACHE_HASH_STK, 8000004);
KESSARD_AT(JCACHE_HASH_STK, idx, 4);
KESSARD_SIZE(JCACHE_HASH_TBL, 464777232);
KESSARD_AT(JCACHE_HASH_TBL, h_idx, 4);
KESSARD_AT(JCACHE_HASH_TBL, h_arr, 16777224);
KESSARD_AT(JCACHE_HASH_TBL, available, 448777224);
KESSARD_AT(JCACHE_HASH_TBL, used, 456777228);

#endif
