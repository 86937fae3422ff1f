// What the three shared hash tables have in common: how they are created and how they are emptied.
// Bucket heads h_idx[] hold the first slot of a chain (-1: empty), slots h_arr[] are linked by
// index, `available` and `used` are index stacks. Slots are handed out from the highest index down.
#pragma once

#include <cstddef>
#include <cstring>

#include "index_stack.h"
#include "sem.h"
#include "shmem.h"

namespace kessard {

struct hash_tbl_key {
    const char* name; // as in the log lines
    int shmkey;
    int semkey;
    std::size_t size; // bytes of the segment
};

struct hash_tbl_object {
    int shmid = -1;
    int semid = -1;
    void* address = nullptr;
    bool existed = false;
};

// Creates or opens the one-semaphore set and the segment of a table and attaches it; logs what
// failed, and the semaphore's "create complete". False on failure.
bool open_hash_tbl(const hash_tbl_key& key, hash_tbl_object* object);

// Logs "(i) <name> open complete" or "create complete" with the segment's key.
void log_hash_tbl_complete(const hash_tbl_key& key, const hash_tbl_object& object);

// Runs `init` under semaphore 0 of a new table. A segment whose identifier is 0 is left as the
// system gave it; one whose semaphore was given up is removed again. Whether it ran.
bool init_new_hash_tbl(const hash_tbl_key& key, const hash_tbl_object& object, int (*init)());

// Holds semaphore 0 of a shared object's set. A set that is gone (removed under the daemon) is
// logged with the object's name and the work goes on without it; given_up() says that the wait
// ended because the daemon stops while another process holds the semaphore: the object must not be
// touched then.
class object_lock {
  public:
    object_lock(const char* name, int semid);
    bool given_up() const { return given_up_; }
    int release() { return hold_.release(); }

  private:
    agt::sem_hold hold_;
    bool given_up_;
};

// Empties a table: the caller holds its semaphore, or nobody else uses it yet.
template <class Table> void clear_hash_tbl(Table& table) {
    shared_store(table.alloc_cnt, 0u);
    std::memset(table.h_idx, 0xff, sizeof table.h_idx);
    agt::clear_shm(table.h_arr, sizeof table.h_arr);
    shared_store(table.used.top, 0u);
    stack_fill(table.available);
}

// Fill level of a table in per cent of its slots; -1.0 when it is not attached.
template <class Table> float hash_tbl_used_pcnt(const Table* table) {
    if (table == nullptr)
        return -1.0F;
    constexpr double slots = stack_capacity<decltype(table->used)>;
    return static_cast<float>(shared_load(table->used.top) * 100.0 / slots);
}

} // namespace kessard
