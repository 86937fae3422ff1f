/* The notification queue: active-service records from the tracers to the daemon. Keys
 * NOTI_SEND_QUE_SHMKEY and NOTI_SEND_QUE_SEMKEY (one semaphore, held with SEM_UNDO by the producers
 * around each put; the daemon is the only consumer and takes no lock).
 *
 * `rear` is the slot of the last record written, `front` that of the last record read. Empty: front
 * == rear. Full: (rear + 1) % NOTI_SEND_QUE_SLOTS == front. A producer copies its record into slot
 * (rear + 1) % SLOTS first and then stores that index in `rear` with release order. */
#ifndef KESSARD_NOTI_SEND_QUE_H
#define KESSARD_NOTI_SEND_QUE_H

#include "cmd_msg.h"

enum { NOTI_SEND_QUE_SLOTS = 32768, NOTI_SEND_QUE_POOL_SIZE = 1 };

typedef struct {
    int front;
    int rear;
} NOTI_SEND_QUE_INFO;

typedef struct {
    ACTIVE_SERVICE_DETAIL act_svc_dtl;
} NOTI_SEND_QUE_DATA;

typedef struct {
    NOTI_SEND_QUE_INFO info;
    NOTI_SEND_QUE_DATA data[NOTI_SEND_QUE_SLOTS];
} NOTI_SEND_QUE;

typedef struct {
    NOTI_SEND_QUE que[NOTI_SEND_QUE_POOL_SIZE];
} NOTI_SEND_QUE_POOL;

KESSARD_SIZE(NOTI_SEND_QUE_INFO, 8);
KESSARD_AT(NOTI_SEND_QUE_INFO, rear, 4);
KESSARD_SIZE(NOTI_SEND_QUE_DATA, 614);
KESSARD_SIZE(NOTI_SEND_QUE, 20119560);
KESSARD_AT(NOTI_SEND_QUE, data, 8);
KESSARD_SIZE(NOTI_SEND_QUE_POOL, 20119560);

#endif
