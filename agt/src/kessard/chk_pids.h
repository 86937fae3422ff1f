// The processes that a liveness sweep has looked up, in the order that decides which it finds
// again.
#pragma once

#include <sys/types.h>

#include "kessard/ptrc_hash_tbl.h"

namespace kessard {

// A process as the trace table names it.
struct CHK_PID {
    pid_t pid;
    char proc_nm[sizeof(PTRC_HASH_ARR::proc_nm)]; // perhaps without a terminator
};

// 0 when two CHK_PID are equal, else 1.
int comp_chk_pid(const void* a, const void* b);

// Forgets all of them.
void clear_chk_pids();

// What `look_up` says of the process, 1 alive, 0 dead: from its record, or by a call when it has
// none or the search misses it. At most PTRC_HASH_SLOTS times after clear_chk_pids(), by the
// housekeeping thread alone.
char isalive_of(const CHK_PID& wanted, char (*look_up)(const CHK_PID& process));

} // namespace kessard
