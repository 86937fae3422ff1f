// System V shared memory.
#include "shmem.h"

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace agt {
namespace {

constexpr int SHM_PERMISSIONS = 0666;

} // namespace

int create_shm(key_t shm_key, std::size_t shm_size, int* q_eexist) {
    const int created = shmget(shm_key, shm_size, IPC_CREAT | IPC_EXCL | SHM_PERMISSIONS);
    if (created >= 0) {
        *q_eexist = 0;
        return created;
    }
    if (errno != EEXIST)
        return -1;
    *q_eexist = 1;
    return shmget(shm_key, shm_size, SHM_PERMISSIONS);
}

void* attach_shm(int shm_id) {
    void* address = shmat(shm_id, nullptr, 0);
    return address == reinterpret_cast<void*>(-1) ? nullptr : address;
}

int detach_shm(const void* shmptr) {
    return shmdt(shmptr);
}

int remove_shm(int shm_id) {
    return shmctl(shm_id, IPC_RMID, nullptr);
}

void clear_shm(void* start, std::size_t size) {
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    auto* first = static_cast<char*>(start);
    char* last = first + size;
    auto* whole_first =
        reinterpret_cast<char*>((reinterpret_cast<std::uintptr_t>(first) + page - 1) / page * page);
    auto* whole_last =
        reinterpret_cast<char*>(reinterpret_cast<std::uintptr_t>(last) / page * page);
    if (whole_first >= whole_last ||
        madvise(whole_first, static_cast<std::size_t>(whole_last - whole_first), MADV_REMOVE) !=
            0) {
        std::memset(first, 0, size);
        return;
    }
    std::memset(first, 0, static_cast<std::size_t>(whole_first - first));
    std::memset(whole_last, 0, static_cast<std::size_t>(last - whole_last));
}

} // namespace agt
