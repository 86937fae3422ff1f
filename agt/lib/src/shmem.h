// System V shared memory. Segments outlive the process; nothing here logs, errno stays as the
// system set it.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace agt {

// Creates the segment of `shm_key` with `shm_size` bytes and permissions 0666, or opens it when it
// exists. The segment id, or -1. *q_eexist becomes 0 when it was created and 1 when it existed
// (also when it then could not be opened, a smaller segment for example); any other failure leaves
// it alone.
[[nodiscard]] int create_shm(key_t shm_key, std::size_t shm_size, int* q_eexist);

// Attaches a segment for reading and writing; null when that fails.
[[nodiscard]] void* attach_shm(int shm_id);

// Detaches; 0, or -1.
int detach_shm(const void* shmptr);

// Marks a segment for removal; 0, or -1.
int remove_shm(int shm_id);

// Zeroes `size` bytes. Whole pages of an attached segment are given back to the system, which
// leaves zeros and costs nothing for pages never touched; where the system refuses that, and at the
// edges, bytes are written. Nobody else may use the memory meanwhile.
void clear_shm(void* start, std::size_t size);

} // namespace agt
