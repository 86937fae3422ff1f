/* A tracer in small: looks whether tracing is on and reports one running service to kessard.
 *
 *     tracer SETTINGS_SHMKEY QUEUE_SHMKEY QUEUE_SEMKEY SERVICE_ID ELAPSED_MS
 *
 * The keys are TRAN_LOGF_QUE_INFO_SHMKEY, NOTI_SEND_QUE_SHMKEY and NOTI_SEND_QUE_SEMKEY of agt.cfg,
 * decimal. Exit status: 0 reported, 1 failed, 2 tracing is off, 3 the queue is full. Link or
 * compile nothing but this file; the headers are in include/kessard. */
#define _XOPEN_SOURCE 700

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <time.h>
#include <unistd.h>

#include "kessard/noti_send_que.h"
#include "kessard/tran_logf_que_info.h"

enum { REPORTED = 0, FAILED = 1, TRACING_OFF = 2, QUEUE_FULL = 3 };

/* Attaches the segment that kessard created; size 0 takes it as large as it is. Null when it is not
 * there. */
static void* attach(const char* key, int flags) {
    const int shmid = shmget((key_t)strtol(key, NULL, 10), 0, 0);
    void* address = shmid < 0 ? (void*)-1 : shmat(shmid, NULL, flags);
    return address == (void*)-1 ? NULL : address;
}

/* Takes (-1) or gives back (+1) the queue's semaphore. With SEM_UNDO in both the kernel gives it
 * back for a process that dies in between; without it every other tracer would wait for ever. */
static int change_semaphore(int semid, short by) {
    struct sembuf operation = {0, by, SEM_UNDO};
    int result;
    do
        result = semop(semid, &operation, 1);
    while (result < 0 && errno == EINTR);
    return result;
}

/* Text, left-justified: blanks up to the last byte, which stays 0. */
static void put_text(char* field, size_t size, const char* text) {
    const size_t length = strlen(text);
    memset(field, ' ', size - 1);
    memcpy(field, text, length < size ? length : size - 1);
}

/* A number with leading zeros, as wide as its field. */
static void put_number(char* field, size_t size, unsigned long value) {
    char text[32];
    snprintf(text, sizeof text, "%020lu", value);
    memcpy(field, text + 20 - (size - 1), size - 1);
}

static ACTIVE_SERVICE_DETAIL make_record(const char* service_id, unsigned long elapsed_ms) {
    ACTIVE_SERVICE_DETAIL record;
    char text[65] = "";
    const time_t now = time(NULL);
    memset(&record, 0, sizeof record);
    gethostname(text, sizeof text - 1);
    put_text(record.host_name, sizeof record.host_name, text);
    put_text(record.tr_cd, sizeof record.tr_cd, "TRAN0001");
    put_text(record.service_id, sizeof record.service_id, service_id);
    put_text(record.tr_section, sizeof record.tr_section, "1");
    snprintf(text, sizeof text, "%ld", (long)getpid());
    put_text(record.pid, sizeof record.pid, text);
    put_number(record.tid, sizeof record.tid, 0);
    put_text(record.proc_nm, sizeof record.proc_nm, "tracer");
    put_number(record.call_trc_depth, sizeof record.call_trc_depth, 1);
    put_number(record.call_seq, sizeof record.call_seq, 1);
    strftime(text, sizeof text, "%H%M%S000000", localtime(&now));
    put_text(record.svc_logdt, sizeof record.svc_logdt, text);
    put_number(record.svc_elapsed_time, sizeof record.svc_elapsed_time, elapsed_ms);
    return record;
}

/* Puts a record behind the last one; the caller holds the queue's semaphore. The record first, then
 * `rear` with release order: kessard, which takes no lock, may read the slot as soon as it sees the
 * new index. */
static int put(NOTI_SEND_QUE* queue, const ACTIVE_SERVICE_DETAIL* record) {
    const int front = __atomic_load_n(&queue->info.front, __ATOMIC_ACQUIRE);
    const int rear = queue->info.rear;
    if (rear < 0 || rear >= NOTI_SEND_QUE_SLOTS)
        return FAILED;
    const int next = (rear + 1) % NOTI_SEND_QUE_SLOTS;
    if (next == front)
        return QUEUE_FULL; /* drop the record: an application never waits for its monitoring */
    queue->data[next].act_svc_dtl = *record;
    __atomic_store_n(&queue->info.rear, next, __ATOMIC_RELEASE);
    return REPORTED;
}

static int report(NOTI_SEND_QUE* queue, const char* semkey, const ACTIVE_SERVICE_DETAIL* record) {
    const int semid = semget((key_t)strtol(semkey, NULL, 10), 1, 0);
    if (semid < 0 || change_semaphore(semid, -1) < 0)
        return FAILED;
    const int result = put(queue, record);
    change_semaphore(semid, 1);
    return result;
}

int main(int argc, char** argv) {
    if (argc != 6) {
        fprintf(stderr,
                "usage: %s SETTINGS_SHMKEY QUEUE_SHMKEY QUEUE_SEMKEY SERVICE_ID ELAPSED_MS\n",
                argv[0]);
        return FAILED;
    }
    const TRAN_LOGF_QUE_INFO* settings = attach(argv[1], SHM_RDONLY);
    NOTI_SEND_QUE* queue = attach(argv[2], 0);
    if (settings == NULL || queue == NULL) {
        perror("the agent's shared memory");
        return FAILED;
    }
    printf("magic_code 0x%08X, call_trc_depth %d\n", settings->magic_code,
           settings->call_trc_depth);
    if (settings->magic_code != TRACE_ON_MAGIC_CODE)
        return TRACING_OFF;
    const ACTIVE_SERVICE_DETAIL record = make_record(argv[4], strtoul(argv[5], NULL, 10));
    return report(queue, argv[3], &record);
}
