// The agent segment and this process's row in it.
#pragma once

#include "kessard/tran_agt_shm.h"

namespace kessard {

// The attached segment and its process registry; null until created.
extern TRAN_AGT_SHM* tran_agt_shm;
extern PROCESS_INFO* proc_info;

// Creates or opens the agent semaphore set (TRAN_AGT_SEM_COUNT semaphores); logs. 1, or 0 on
// failure.
[[nodiscard]] int create_tran_agt_sem();

// Creates or opens the agent segment under semaphore 0 and attaches it; a new one stays all zero.
// Runs after create_tran_agt_sem. 1, or 0 on failure, with the semaphore left taken for the kernel
// to give back.
[[nodiscard]] int create_tran_agt_shm();

// Used rows of the process registry, at most PROCESS_INFO_MAX.
int registry_rows();

// Marks row `index` inactive when it belongs to this process and logs it; a row of another process
// is logged and left alone. Nothing for a negative index or without the segment.
void deactivate_process(int index);

} // namespace kessard
