// System V semaphores.
//
// A semaphore that is taken is waited for in the system's own queue, by one call: whoever comes
// back after a while stands at the end of that queue again, and between neighbours that hold it in
// turn never gets it. A thread that has a cancel descriptor (wait.h) is given a companion for the
// time of such a wait, which sends it a signal when the descriptor becomes readable; the signal
// does nothing but end the call.
#include "sem.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <ctime>

#include "unique_fd.h"
#include "wait.h"

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace agt {
namespace {

constexpr int SEM_PERMISSIONS = 0666;
constexpr long long SLICE_MS = 100;

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

constexpr int WAKE_SIGNAL = SIGURG; // ignored unless somebody handles it
constexpr int WAKE_AGAIN_MS = 10;

void do_nothing(int) {}

bool handle_wake_signal() {
    struct sigaction action {};
    action.sa_handler = do_nothing;
    return sigaction(WAKE_SIGNAL, &action, nullptr) == 0;
}

// Ends the calling thread's wait when it is cancelled, for the life of the object.
class waker {
  public:
    waker() : cancel_fd_(get_cancel_fd()) {
        static const bool handled = handle_wake_signal();
        if (handled && cancel_fd_ >= 0 && stop_.valid())
            started_ = pthread_create(&handle_, nullptr, run, this) == 0;
    }
    waker(const waker&) = delete;
    waker& operator=(const waker&) = delete;
    ~waker() {
        const int result = errno; // of the wait
        const std::uint64_t one = 1;
        if (started_ && write(stop_.get(), &one, sizeof one) == sizeof one)
            pthread_join(handle_, nullptr);
        errno = result;
    }

    // Whether a wait can go on without a limit: nobody cancels the thread, or its companion ends
    // the wait.
    bool covers() const { return started_ || cancel_fd_ < 0; }

  private:
    static void* run(void* self) {
        const auto* own = static_cast<waker*>(self);
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        int limit_ms = -1;
        for (;;) {
            pollfd watched[2] = {{own->stop_.get(), POLLIN, 0}, {own->cancel_fd_, POLLIN, 0}};
            const int ready = poll(watched, limit_ms < 0 ? 2 : 1, limit_ms);
            if (watched[0].revents != 0)
                return nullptr;
            if (ready >= 0) { // once is not enough: the call may not have begun
                pthread_kill(own->waiter_, WAKE_SIGNAL);
                limit_ms = WAKE_AGAIN_MS;
            }
        }
    }

    int cancel_fd_;
    unique_fd stop_{eventfd(0, EFD_CLOEXEC)};
    pthread_t waiter_ = pthread_self();
    pthread_t handle_ = 0;
    bool started_ = false;
};

timespec time_of(long long ms) {
    return {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000 * 1000000)};
}

// Waits in the system's queue for at most `limit_ms`; without a companion in slices.
int wait_in_queue(int sem_id, struct sembuf operation, int limit_ms) {
    const waker companion;
    const long long until_ms = monotonic_ms() + limit_ms;
    for (;;) {
        long long left_ms = limit_ms < 0 ? LLONG_MAX : std::max(until_ms - monotonic_ms(), 0LL);
        const bool whole = companion.covers() || left_ms <= SLICE_MS;
        const timespec left = time_of(whole ? left_ms : SLICE_MS);
        const bool unlimited = whole && limit_ms < 0;
        const int ret = semtimedop(sem_id, &operation, 1, unlimited ? nullptr : &left);
        if (ret == 0 || (errno != EINTR && errno != EAGAIN) || (errno == EAGAIN && whole))
            return ret;
        if (cancelled()) {
            errno = ECANCELED;
            return -1;
        }
    }
}

int operate(int sem_id, int num, int sem_op, int sem_flg, int limit_ms) {
    struct sembuf operation = {};
    operation.sem_num = static_cast<unsigned short>(num);
    operation.sem_op = static_cast<short>(sem_op);
    operation.sem_flg = static_cast<short>(sem_flg | IPC_NOWAIT);
    int ret = -1;
    do
        ret = semtimedop(sem_id, &operation, 1, nullptr);
    while (ret != 0 && errno == EINTR);
    if (ret == 0 || errno != EAGAIN || (sem_flg & IPC_NOWAIT) != 0 || limit_ms == 0)
        return ret;
    operation.sem_flg = static_cast<short>(sem_flg);
    return wait_in_queue(sem_id, operation, limit_ms);
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
    return sem_lock_within(sem_id, num, sem_flg, -1);
}

int sem_lock_within(int sem_id, int num, int sem_flg, int limit_ms) {
    const int ret = operate(sem_id, num, -1, sem_flg, limit_ms);
    if (ret == 0)
        note_locked(sem_id, num);
    return ret;
}

int sem_unlock(int sem_id, int num, int sem_flg) {
    note_unlocking(sem_id, num);
    return operate(sem_id, num, 1, sem_flg, -1);
}

void sem_wait(int sem_id, int num) {
    operate(sem_id, num, 0, 0, -1);
}

pid_t sem_last_pid(int sem_id, int num) {
    return std::max(semctl(sem_id, num, GETPID), 0);
}

} // namespace agt
