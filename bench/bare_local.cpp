// The bare works that need no connection.
#include "bare_local.h"

#include <poll.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Milliseconds of the daemon's waits: command loop, watcher, housekeeping, notifier, health check,
// watchdog.
int rhythms_ms[] = {3000, 1000, 1000, 20, 30000, 60000};

void* wait_again_and_again(void* ms) {
    for (;;)
        poll(nullptr, 0, *static_cast<int*>(ms));
}

[[noreturn]] void stay() {
    std::puts("ready");
    std::fflush(stdout);
    for (;;)
        pause();
}

void attach(key_t key, std::size_t size, bool touch) {
    void* object = shmat(shmget(key, size, IPC_CREAT | 0666), nullptr, 0);
    if (object == reinterpret_cast<void*>(-1))
        _exit(1);
    if (touch)
        std::memset(object, 0, size);
}

} // namespace

void attach_objects(bool touch, char** keys_and_sizes) {
    for (char** at = keys_and_sizes; at[0] != nullptr && at[1] != nullptr; at += 2)
        attach(static_cast<key_t>(std::atol(at[0])), std::strtoul(at[1], nullptr, 10), touch);
    stay();
}

void wait_without_work() {
    for (int& ms : rhythms_ms) {
        pthread_t thread{};
        if (pthread_create(&thread, nullptr, wait_again_and_again, &ms) != 0)
            _exit(1);
    }
    stay();
}
