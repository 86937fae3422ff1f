// System V semaphores, the locks that the agent's processes share.
//
// The undo record of SEM_UNDO belongs to the process: the kernel gives a held semaphore back when
// the process dies, not when a thread ends, and a forked child inherits none. Lock and unlock
// therefore always carry the flag both, in the same process. Nothing here logs; errno stays as the
// system set it.
#pragma once

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/types.h>

namespace agt {

union semun {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

// Creates the set of `semkey` with `nsems` semaphores of value 1 and permissions 0666, or opens it
// as it is when it exists. The set's id, or -1.
[[nodiscard]] int create_sem(key_t semkey, int nsems);

// Sets semaphore `nth_sem` to `val`; 1, or -1.
int init_sem_val(int sem_id, int nth_sem, int val);

// Takes semaphore `num` (operation -1). 0, or -1: EIDRM or EINVAL when the set is gone, ECANCELED
// when the calling thread was cancelled while it waited (wait.h).
[[nodiscard]] int sem_lock(int sem_id, int num, int sem_flg);

// The same for at most `limit_ms` milliseconds (-1: no limit, 0: at once or not at all); -1 with
// EAGAIN when they are over.
[[nodiscard]] int sem_lock_within(int sem_id, int num, int sem_flg, int limit_ms);

// Gives semaphore `num` back (operation +1); 0, or -1.
int sem_unlock(int sem_id, int num, int sem_flg);

// Waits until semaphore `num` is zero.
// Nothing in the programs calls it.
void sem_wait(int sem_id, int num);

// The process that changed semaphore `num` last, which holds it while the value is 0; 0 when the
// system does not tell.
pid_t sem_last_pid(int sem_id, int num);

// Holds semaphore `num` of a set, with undo, for the life of the object. held() is false when it
// could not be taken (within `limit_ms`, -1 without a limit); errno then says why.
class sem_hold {
  public:
    sem_hold(int sem_id, int num, int limit_ms = -1)
        : sem_id_(sem_id), num_(num), held_(sem_lock_within(sem_id, num, SEM_UNDO, limit_ms) == 0) {
    }
    sem_hold(const sem_hold&) = delete;
    sem_hold& operator=(const sem_hold&) = delete;
    ~sem_hold() { release(); }

    bool held() const { return held_; }
    // Tries once more, like the constructor, when it is not held.
    bool try_again(int limit_ms) {
        held_ = held_ || sem_lock_within(sem_id_, num_, SEM_UNDO, limit_ms) == 0;
        return held_;
    }
    // Leaves it taken until the process ends.
    void keep() { held_ = false; }
    // Gives it back early; the result of sem_unlock, 0 when it was not held.
    int release() {
        const int ret = held_ ? sem_unlock(sem_id_, num_, SEM_UNDO) : 0;
        held_ = false;
        return ret;
    }

  private:
    int sem_id_;
    int num_;
    bool held_;
};

} // namespace agt
