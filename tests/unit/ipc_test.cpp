// System V segments and semaphores: creating and opening, locks that are interrupted, cancelled, removed or lost.
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <future>

#include "agent_fixture.h"
#include "sem.h"
#include "shmem.h"

namespace {

using test_support::wait_until;

class Ipc : public testing::Test {
  protected:
    test_support::agent keys; // removes what is left under them
    const key_t shm_key = keys.shm_key("SVC_HASH_TBL_SHMKEY");
    const key_t sem_key = keys.sem_key("SVC_HASH_TBL_SEMKEY");

    static int value(int semid) { return semctl(semid, 0, GETVAL); }
    static bool wait_waiter(int semid) {
        return wait_until([semid] { return semctl(semid, 0, GETNCNT) == 1; });
    }
};

TEST_F(Ipc, ClearsExactlyTheBytesAskedFor) {
    constexpr std::size_t SIZE = 5 * 4096;
    int existed = 0;
    auto* segment = static_cast<char*>(agt::attach_shm(agt::create_shm(shm_key, SIZE, &existed)));
    std::string heap(SIZE, 'x');
    const std::pair<std::size_t, std::size_t> ranges[] = {{0, SIZE},   {1, SIZE - 2}, {4096, 8192}, {100, 50},
                                                          {4000, 200}, {4095, 4098},  {77, 0}};
    for (char* memory : {segment, heap.data()})
        for (const auto& [at, size] : ranges) {
            std::memset(memory, 'x', SIZE);
            agt::clear_shm(memory + at, size);
            std::string wanted(SIZE, 'x');
            wanted.replace(at, size, std::string(size, '\0'));
            EXPECT_TRUE(std::memcmp(memory, wanted.data(), SIZE) == 0) << at << " " << size;
        }
    agt::detach_shm(segment);
}

TEST_F(Ipc, OpensWhatExistsAsItIs) {
    int existed = 7;
    const int shmid = agt::create_shm(shm_key, 5000, &existed);
    EXPECT_EQ(existed, 0);
    EXPECT_EQ(agt::create_shm(shm_key, 5000, &existed), shmid);
    EXPECT_EQ(existed, 1);
    existed = 7;
    EXPECT_EQ(agt::create_shm(shm_key, 5001, &existed), -1); // larger than it is
    EXPECT_EQ(existed, 1);
    EXPECT_EQ(agt::remove_shm(shmid), 0);
    EXPECT_EQ(agt::attach_shm(shmid), nullptr);
    const int id = agt::create_sem(sem_key, 3);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(semctl(id, i, GETVAL), 1);
    EXPECT_EQ(agt::init_sem_val(id, 0, 0), 1);
    EXPECT_EQ(agt::create_sem(sem_key, 3), id);
    EXPECT_EQ(value(id), 0);
    EXPECT_EQ(agt::create_sem(sem_key, 4), -1);
    EXPECT_EQ(agt::init_sem_val(id, 3, 1), -1);
}

// Signals do not end a wait; the holder's unlock, a cancellation and the removal of the set do.
TEST_F(Ipc, WaitsForALock) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    const int id = agt::create_sem(sem_key, 1);
    const agt::unique_fd cancel(eventfd(0, EFD_CLOEXEC));
    pthread_t waiter{};
    const auto lock = [&] { // 0, or the error
        waiter = pthread_self();
        agt::set_cancel_fd(cancel.get());
        return agt::sem_lock(id, 0, 0) == 0 ? 0 : errno;
    };
    ASSERT_EQ(agt::sem_lock(id, 0, SEM_UNDO), 0);
    auto locked = std::async(std::launch::async, lock);
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(wait_waiter(id));
        pthread_kill(waiter, SIGUSR1);
    }
    EXPECT_EQ(agt::sem_unlock(id, 0, SEM_UNDO), 0);
    EXPECT_EQ(locked.get(), 0);
    EXPECT_EQ(value(id), 0);
    EXPECT_EQ(agt::sem_lock(id, 0, IPC_NOWAIT), -1);

    auto cancelled = std::async(std::launch::async, lock);
    EXPECT_TRUE(wait_waiter(id));
    eventfd_write(cancel.get(), 1);
    EXPECT_EQ(cancelled.get(), ECANCELED);
    eventfd_t taken = 0;
    eventfd_read(cancel.get(), &taken);

    auto removed = std::async(std::launch::async, lock);
    EXPECT_TRUE(wait_waiter(id));
    semctl(id, 0, IPC_RMID);
    const int reason = removed.get();
    EXPECT_TRUE(reason == EIDRM || reason == EINVAL) << reason;
}

TEST_F(Ipc, GivesBackWhatAKilledProcessHeld) {
    const int id = agt::create_sem(sem_key, 1);
    const pid_t child = fork();
    if (child == 0) {
        const agt::sem_hold hold(id, 0);
        pause();
        _exit(1);
    }
    EXPECT_TRUE(wait_until([&] { return value(id) == 0; }));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(value(id), 1);
    {
        agt::sem_hold hold(id, 0);
        EXPECT_EQ(value(id), 0);
        EXPECT_EQ(hold.release(), 0);
    }
    EXPECT_EQ(value(id), 1); // given back once
}

} // namespace
