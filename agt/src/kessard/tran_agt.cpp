// The agent segment.
#include "tran_agt.h"

#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "log_printf.h"
#include "sem.h"
#include "settings.h"
#include "shared.h"
#include "shmem.h"

namespace kessard {

TRAN_AGT_SHM* tran_agt_shm = nullptr;
PROCESS_INFO* proc_info = nullptr;

namespace {

int tran_agt_semid = -1;

} // namespace

int create_tran_agt_sem() {
    tran_agt_semid = agt::create_sem(tran_agt_semkey, TRAN_AGT_SEM_COUNT);
    const bool created = tran_agt_semid >= 0;
    agt::log_printf(created ? "(i) tran agent semaphore create complete.[key:0x%x]"
                            : "<!> tran agent semaphore create error.[key:0x%x]",
                    static_cast<unsigned>(tran_agt_semkey));
    return created ? 1 : 0;
}

int create_tran_agt_shm() {
    const int locked = agt::sem_lock(tran_agt_semid, 0, SEM_UNDO);
    if (locked != 0 && errno != ECANCELED)
        agt::log_printf("<!> tran agent semaphore lock error.[semid:%d, errno:%d]", tran_agt_semid,
                        errno);
    int existed = 0;
    const int shmid = agt::create_shm(tran_agt_shmkey, sizeof(TRAN_AGT_SHM), &existed);
    void* address = shmid < 0 ? nullptr : agt::attach_shm(shmid);
    if (address == nullptr) {
        agt::log_printf("<!> tran_agt_shm create error.[key:0x%x]",
                        static_cast<unsigned>(tran_agt_shmkey));
        return 0;
    }
    tran_agt_shm = static_cast<TRAN_AGT_SHM*>(address);
    proc_info = tran_agt_shm->proc_info;
    agt::log_printf("(i) tran_agt_shm %s complete.[key:0x%x]", existed != 0 ? "open" : "create",
                    static_cast<unsigned>(tran_agt_shmkey));
    if (locked == 0)
        agt::sem_unlock(tran_agt_semid, 0, SEM_UNDO);
    return 1;
}

int registry_rows() {
    return tran_agt_shm == nullptr
               ? 0
               : std::clamp(shared_load(tran_agt_shm->proc_num), 0, int{PROCESS_INFO_MAX});
}

void deactivate_process(int index) {
    if (index < 0 || proc_info == nullptr)
        return;
    const pid_t own = getpid();
    const pid_t owner = index < PROCESS_INFO_MAX ? shared_load(proc_info[index].proc_pid) : -1;
    if (owner != own) {
        agt::log_printf("<!> proc_info pid mismatch (%d <> %d), process_idx : %d", owner, own,
                        index);
        return;
    }
    shared_store(proc_info[index].cur_sts, static_cast<char>(PROCESS_DEACT));
    agt::log_printf("(I) pid : %d,  cur_sts set PROCESS_DEACT... ok", own);
}

} // namespace kessard
