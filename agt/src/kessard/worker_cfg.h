// Set-up of the worker watchdog: its settings, the names that are never reported, and the queue of
// its events. All of it belongs to the watchdog thread.
#pragma once

#include "read_cfg.h"

namespace kessard {

enum { WORKER_MODE_PROCESS = 1, WORKER_MODE_THREAD = 2 };

struct worker_settings {
    char tr_section[agt::CFG_WORD_SIZE]; // TRAN_LOGF / TR_SECTION
    int worker_check_interval; // KESSARD / WORKER_CHECK_INTERVAL: seconds between two passes, 0 is
                               // off
    int worker_flag;           // 1 once a check interval was read that is not 0
    int worker_rest_interval;  // KESSARD / WORKER_REST_INTERVAL: seconds without activity, at least
                               // 60
    int worker_mode;           // KESSARD / WORKER_MODE: WORKER_MODE_*
};
extern worker_settings worker_cfg;

// The semaphore set of the parse-log queues; -1 until created.
extern int parse_log_que_semid;

// Reads the settings, builds the skip list and creates the event queue, stopping at the first that
// fails. 1 when the watchdog may run, else 0.
int init_is_working();

// Adds every name of a null-terminated array, each cut to 30 characters, to the skip list. 1; 0
// without memory, with the names so far kept.
int create_skip_hash(char** names);

// 1 when exactly this name is in the skip list, else 0. `proc_nm` holds 31 bytes and need not have
// a terminator.
int find_skip_hash(const char* proc_nm);

// Empties the skip list. Nothing in the programs calls it.
void delete_skip_hash();

// Creates or opens the parse-log queues and their semaphores under the configured keys; logs. 1, or
// 0 on failure.
int create_parser_queue();

} // namespace kessard
