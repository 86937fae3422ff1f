// The worker watchdog.
//
// Every check interval it walks the trace table, without a lock and trusting nothing in it, and
// posts an event record for what has not moved for longer than the rest interval. In THREAD mode a
// pass also lists the worker processes and which of them had an active thread; a thread entry that
// stands before its process's entry finds no worker yet, and that order dependence is part of the
// behaviour. The list is rebuilt by every pass.
#include "check_worker.h"

#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "hash_without_exit.h"

#include "daemon_thread.h"
#include "field.h"
#include "index_stack.h"
#include "log_printf.h"
#include "open_object.h"
#include "parse_log_que.h"
#include "printable.h"
#include "process_globals.h"
#include "ptrc_hash_stk.h"
#include "settings.h"
#include "state_file.h"
#include "util.h"
#include "wait.h"
#include "worker_cfg.h"

namespace kessard {
namespace {

constexpr int START_DELAY_MS = 5000;
constexpr int ATTACH_CHECKS = 10;
constexpr char EVENT_PROCESS_IDLE[] = "1710";
constexpr char EVENT_THREAD_IDLE[] = "1711";
constexpr char EVENT_RANGE_ERROR[] = "2010";
constexpr char EVENT_LOG_TYPE = 'V';
constexpr std::size_t PROC_NM_SIZE = sizeof(PTRC_HASH_ARR::proc_nm);

daemon_thread th("check_worker", check_worker, "<!> network pthread_create error.", STATE_WATCHDOG,
                 START_DELAY_MS);

struct ST_WORKER_LIST {
    pid_t pid;
    char proc_nm[PROC_NM_SIZE];
    char is_alive; // a thread of the process was active in this pass
    std::time_t lasted_access;
    int worker_count;              // thread entries of the process in this pass
    const PTRC_HASH_ARR_LIST* ptr; // the process's entry
    UT_hash_handle hh;
};
ST_WORKER_LIST* worker_list = nullptr;

const PTRC_HASH_ARR_LIST* last_examined = nullptr;

// What an event says of its entry; empty and zero without one.
struct event_subject {
    char proc_nm[PROC_NM_SIZE] = "";
    pid_t _pid = 0;
    unsigned long _tid = 0;
    std::time_t lasted_access = 0;
};

event_subject subject_of(const PTRC_HASH_ARR_LIST* entry) {
    event_subject subject;
    if (entry == nullptr)
        return subject;
    agt::copy_text(subject.proc_nm, entry->param.proc_nm);
    subject._pid = agt::shared_load(entry->param._pid);
    subject._tid = agt::shared_load(entry->param._tid);
    subject.lasted_access = agt::shared_load(entry->param.lasted_access);
    return subject;
}

struct table_counts {
    int alloc_cnt;
    int top;
};

table_counts count_table() {
    return {static_cast<int>(agt::shared_load(ptrc_hash_tbl->alloc_cnt)),
            static_cast<int>(agt::stack_top(ptrc_hash_tbl->used))};
}

template <std::size_t N> void fill(char (&field)[N], const char* text, std::size_t most) {
    std::memcpy(field, text, agt::text_length(text, most < N ? most : N));
}

// The name starts in server_id and runs on into service_id when it is longer.
void write_idle_entry(LOG_HASH_ARR* record, const PTRC_HASH_ARR_LIST& entry,
                      const event_subject& subject) {
    TRAN_LOG_HDR_FMT& hdr = record->keep_log.hdr;
    std::memcpy(reinterpret_cast<char*>(&hdr) + offsetof(TRAN_LOG_HDR_FMT, server_id),
                subject.proc_nm, std::strlen(subject.proc_nm));
    std::memcpy(hdr.pid, entry.param.pid, sizeof hdr.pid - 1);
    std::memcpy(hdr.tid, entry.param.tid, sizeof hdr.tid - 1);
    const struct tm when = agt::local_time(subject.lasted_access);
    char accessed[80];
    std::snprintf(accessed, sizeof accessed, "%04ld-%02d-%02d %02d:%02d:%02d", when.tm_year + 1900L,
                  when.tm_mon + 1, when.tm_mday, when.tm_hour, when.tm_min, when.tm_sec);
    auto& text = record->keep_log.bdy.evt_log.evt_info_str;
    std::snprintf(text, sizeof text - 1,
                  "%s not running. [%s / pid:%d / tid:%lu] (Last access tm : %s)",
                  subject._tid != 0 ? "Thread" : "Process", subject.proc_nm, subject._pid,
                  subject._tid, accessed);
}

void write_range_error(LOG_HASH_ARR* record) {
    const table_counts counts = count_table();
    auto& text = record->keep_log.bdy.evt_log.evt_info_str;
    std::snprintf(text, sizeof text - 1, "PTRC range error. [A:%d/T:%d/%d]", counts.alloc_cnt,
                  counts.top, int{PTRC_HASH_SLOTS});
}

void write_header(LOG_HASH_ARR* record, const char* code) {
    TRAN_LOG_HDR_FMT& hdr = record->keep_log.hdr;
    char host_name[65] = "";
    gethostname(host_name, sizeof host_name - 1);
    hdr.log_type[0] = EVENT_LOG_TYPE;
    record->result_flag = EVENT_LOG_TYPE;
    fill(hdr.log_interface, log_interface, 2);
    hdr.tr_section[0] = worker_cfg.tr_section[0];
    fill(hdr.host_name, host_name, 63);
    timeval now{};
    gettimeofday(&now, nullptr);
    const struct tm local = agt::local_time(now.tv_sec);
    std::strftime(hdr.log_day, sizeof hdr.log_day, "%Y%m%d", &local);
    std::snprintf(hdr.log_time, sizeof hdr.log_time, "%02d%02d%02d%06d", local.tm_hour,
                  local.tm_min, local.tm_sec, static_cast<int>(now.tv_usec));
    fill(record->keep_log.bdy.evt_log.evt_id, code, 4);
}

// Puts the record under the queue's semaphore, which is given back before anything is logged.
int put_event(const LOG_HASH_ARR& record, int* put) {
    object_lock lock(agt::PARSE_QUEUES, parse_log_que_semid);
    if (!lock.given_up() && repair_parse_log_que())
        agt::log_printf("<!> parse_log_que rear was out of range, put back to front.");
    *put = lock.given_up() ? -1 : put_parse_log_que(&record, sizeof record);
    return lock.release();
}

// The result of releasing the queue's semaphore, or 0 for an unknown code. `entry` may be null for
// a range error.
int send_event(const PTRC_HASH_ARR_LIST* entry, const char* code) {
    LOG_HASH_ARR record;
    std::memset(static_cast<void*>(&record), ' ', sizeof record);
    const event_subject subject = subject_of(entry);
    if (std::strcmp(code, EVENT_PROCESS_IDLE) == 0 || std::strcmp(code, EVENT_THREAD_IDLE) == 0)
        write_idle_entry(&record, *entry, subject);
    else if (std::strcmp(code, EVENT_RANGE_ERROR) == 0)
        write_range_error(&record);
    else
        return 0;
    write_header(&record, code);
    int put = 0;
    const int ret = put_event(record, &put);
    if (put < 0 && agt::cancelled()) // the end did not wait for the queue
        return ret;
    figure_add(put < 0 ? figures->watchdog_events_lost : figures->watchdog_events);
    if (put < 0)
        agt::log_printf("<!> put_parse_log_que fail");
    agt::log_printf("[CHECK_WORKER] send_event [%s, pid:%d, tid:%lu] [ret:%d]\n",
                    agt::printable(subject.proc_nm).c_str(), subject._pid, subject._tid, put);
    return ret;
}

void add_worker(const PTRC_HASH_ARR_LIST* entry) {
    auto* worker = static_cast<ST_WORKER_LIST*>(std::calloc(1, sizeof(ST_WORKER_LIST)));
    if (worker == nullptr) {
        agt::log_printf("<!> %s -> not enought memory.", "add_worker");
        return;
    }
    const event_subject subject = subject_of(entry);
    worker->pid = subject._pid;
    worker->lasted_access = subject.lasted_access;
    worker->ptr = entry;
    agt::copy_text(worker->proc_nm, subject.proc_nm);
    HASH_ADD_INT(worker_list, pid, worker);
    agt::log_printf("[ADD] %s(%d)", agt::printable(worker->proc_nm).c_str(), worker->pid);
}

ST_WORKER_LIST* find_worker(pid_t pid) {
    ST_WORKER_LIST* found = nullptr;
    HASH_FIND_INT(worker_list, &pid, found);
    return found;
}

void delete_worker() {
    ST_WORKER_LIST* worker = nullptr;
    ST_WORKER_LIST* next = nullptr;
    agt::log_printf("[CHECK_WORKER] Delete worker list. [count:%d]\n",
                    static_cast<int>(HASH_COUNT(worker_list)));
    HASH_ITER(hh, worker_list, worker, next) {
        HASH_DEL(worker_list,
                 worker); // NOLINT(clang-analyzer-unix.Malloc): HASH_ITER keeps the next one
        std::free(worker);
    }
}

bool is_idle(const PTRC_HASH_ARR_LIST& entry, std::time_t now) {
    return agt::shared_load(entry.param.lasted_access) < now - worker_cfg.worker_rest_interval;
}

void examine_thread(const PTRC_HASH_ARR_LIST* entry, std::time_t now) {
    if (agt::shared_load(entry->param._tid) == 0) {
        add_worker(entry);
        return;
    }
    ST_WORKER_LIST* worker = find_worker(agt::shared_load(entry->param._pid));
    if (is_idle(*entry, now))
        send_event(entry, EVENT_THREAD_IDLE);
    else if (worker != nullptr)
        worker->is_alive = 1;
    if (worker != nullptr)
        ++worker->worker_count;
}

// Always 1. In PROCESS mode the name, which lies on another page, is looked at only when there is
// something to report.
int is_working(const PTRC_HASH_ARR_LIST* entry, std::time_t now) {
    if (worker_cfg.worker_mode == WORKER_MODE_PROCESS && !is_idle(*entry, now))
        return 1;
    if (find_skip_hash(entry->param.proc_nm) != 0)
        return 1;
    if (worker_cfg.worker_mode == WORKER_MODE_PROCESS)
        send_event(entry, EVENT_PROCESS_IDLE);
    else
        examine_thread(entry, now);
    return 1;
}

// A pass that the end of the daemon cut short has not seen every thread, so it reports nobody.
void report_dead_workers() {
    for (const ST_WORKER_LIST* worker = worker_list; worker != nullptr && running != 0;
         worker = static_cast<ST_WORKER_LIST*>(worker->hh.next)) {
        if (worker->is_alive != 0)
            continue;
        agt::log_printf("[CHECK_WORKER] send event. %s(%d)",
                        agt::printable(worker->proc_nm).c_str(), worker->pid);
        send_event(worker->ptr, EVENT_THREAD_IDLE);
    }
    delete_worker();
}

void examine_entries(unsigned int used) {
    for (unsigned int i = 0; i < used && running != 0; ++i) {
        const unsigned int slot = agt::shared_load(ptrc_hash_tbl->used.idx[i]);
        if (slot >= PTRC_HASH_SLOTS)
            continue;
        last_examined = &ptrc_hash_tbl->h_arr[slot];
        is_working(last_examined, std::time(nullptr));
    }
}

bool table_attached() {
    for (int i = 0; i < ATTACH_CHECKS; ++i) {
        if (ptrc_hash_tbl != nullptr)
            return true;
    }
    return false;
}

} // namespace

bool check_worker_pass() {
    const table_counts counts = count_table();
    if (static_cast<unsigned int>(counts.top) > PTRC_HASH_SLOTS) {
        agt::log_printf("<!> PTRC hash range error (A:%d/T:%d/%d)n", counts.alloc_cnt, counts.top,
                        int{PTRC_HASH_SLOTS});
        send_event(last_examined, EVENT_RANGE_ERROR);
        return false;
    }
    agt::log_printf("[CHECK_WORKER] worker check start. [PTRC->A:%d/T:%d/%d]", counts.alloc_cnt,
                    counts.top, int{PTRC_HASH_SLOTS});
    examine_entries(static_cast<unsigned int>(counts.top));
    if (worker_cfg.worker_mode == WORKER_MODE_THREAD)
        report_dead_workers();
    figure_add(figures->watchdog_passes);
    return true;
}

void th_check_worker() {
    start_thread(th);
}

void stop_check_worker() {
    stop_thread(th);
}

void* check_worker(void*) {
    if (!agt::sleep_ms(START_DELAY_MS))
        return nullptr;
    if (init_is_working() == 0) {
        agt::say("<!> WORKER init fail\n");
        return nullptr;
    }
    if (!table_attached()) {
        agt::log_printf("<!> PTRC noet exist. Thread finished.");
        return nullptr;
    }
    agt::log_printf("=== [CHECK_WORKER] check_int : %d,  rest_int : %d",
                    worker_cfg.worker_check_interval, worker_cfg.worker_rest_interval);
    set_rhythm(worker_cfg.worker_check_interval * 1000LL);
    for (note_pass(); keep_running() && check_worker_pass(); note_pass())
        agt::set_idle(worker_cfg.worker_check_interval, 0);
    return nullptr;
}

} // namespace kessard
