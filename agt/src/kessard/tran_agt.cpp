// The agent segment.
#include "tran_agt.h"

#include <unistd.h>

#include <algorithm>

#include "log_printf.h"
#include "open_object.h"
#include "settings.h"
#include "shared_field.h"

namespace kessard {

TRAN_AGT_SHM* tran_agt_shm = nullptr;
PROCESS_INFO* proc_info = nullptr;

namespace {

int tran_agt_semid = -1;

} // namespace

int create_tran_agt_sem() {
    opened_object set;
    if (!open_logged_object(agt::AGENT_SEMAPHORES, tran_agt_semkey, &set))
        return 0;
    tran_agt_semid = set.id;
    return 1;
}

// A failure leaves the semaphore taken, so that no other process takes its turn before this one has
// ended.
int create_tran_agt_shm() {
    object_lock lock(agt::AGENT_SEGMENT, tran_agt_semid);
    opened_object segment;
    if (!open_logged_object(agt::AGENT_SEGMENT, tran_agt_shmkey, &segment)) {
        lock.keep();
        return 0;
    }
    tran_agt_shm = static_cast<TRAN_AGT_SHM*>(segment.address);
    proc_info = tran_agt_shm->proc_info;
    log_object_complete(agt::AGENT_SEGMENT, tran_agt_shmkey, segment.existed);
    return 1;
}

int registry_rows() {
    return tran_agt_shm == nullptr
               ? 0
               : std::clamp(agt::shared_load(tran_agt_shm->proc_num), 0, int{PROCESS_INFO_MAX});
}

void deactivate_process(int index) {
    if (index < 0 || proc_info == nullptr)
        return;
    const pid_t own = getpid();
    const pid_t owner = index < PROCESS_INFO_MAX ? agt::shared_load(proc_info[index].proc_pid) : -1;
    if (owner != own) {
        agt::log_printf("<!> proc_info pid mismatch (%d <> %d), process_idx : %d", owner, own,
                        index);
        return;
    }
    agt::shared_store(proc_info[index].cur_sts, static_cast<char>(PROCESS_DEACT));
    agt::log_printf("(I) pid : %d,  cur_sts set PROCESS_DEACT... ok", own);
}

} // namespace kessard
