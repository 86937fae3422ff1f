// System V semaphores.
//
// A wait is cut into slices, so that a thread that is cancelled stops waiting for a holder that
// never comes back.
#include "sem.h"

#include <cerrno>
#include <ctime>

#include "wait.h"

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace agt {
namespace {

constexpr int SEM_PERMISSIONS = 0666;
constexpr timespec SLICE = {0, 100'000'000};

// Tells the thread sanitizer, which does not know these locks, what orders the threads of this
// process.
#if defined(__SANITIZE_THREAD__)
char order_of[64];
void note_locked(int sem_id, int num) {
    __tsan_acquire(&order_of[(sem_id * 7 + num) & 63]);
}
void note_unlocking(int sem_id, int num) {
    __tsan_release(&order_of[(sem_id * 7 + num) & 63]);
}
#else
void note_locked(int, int) {}
void note_unlocking(int, int) {}
#endif

int operate(int sem_id, int num, int sem_op, int sem_flg) {
    struct sembuf operation = {};
    operation.sem_num = static_cast<unsigned short>(num);
    operation.sem_op = static_cast<short>(sem_op);
    operation.sem_flg = static_cast<short>(sem_flg);
    for (;;) {
        const int ret = semtimedop(sem_id, &operation, 1, &SLICE);
        if (ret == 0 || (errno != EINTR && errno != EAGAIN) || (sem_flg & IPC_NOWAIT) != 0)
            return ret;
        if (cancelled()) {
            errno = ECANCELED;
            return -1;
        }
    }
}

} // namespace

int create_sem(key_t semkey, int nsems) {
    const int created = semget(semkey, nsems, IPC_CREAT | IPC_EXCL | SEM_PERMISSIONS);
    if (created < 0)
        return errno == EEXIST ? semget(semkey, nsems, 0) : -1;
    for (int i = 0; i < nsems; ++i)
        init_sem_val(created, i, 1);
    return created;
}

int init_sem_val(int sem_id, int nth_sem, int val) {
    semun value = {};
    value.val = val;
    return semctl(sem_id, nth_sem, SETVAL, value) == -1 ? -1 : 1;
}

int sem_lock(int sem_id, int num, int sem_flg) {
    const int ret = operate(sem_id, num, -1, sem_flg);
    if (ret == 0)
        note_locked(sem_id, num);
    return ret;
}

int sem_unlock(int sem_id, int num, int sem_flg) {
    note_unlocking(sem_id, num);
    return operate(sem_id, num, 1, sem_flg);
}

void sem_wait(int sem_id, int num) {
    operate(sem_id, num, 0, 0);
}

} // namespace agt
