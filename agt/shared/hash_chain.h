// The chains of the shared hash tables. A bucket head h_idx[] and a slot's next_idx hold the number
// of the next slot of h_arr[], NO_SLOT at the end; pre_idx leads back. Another process may have
// left anything there, so every number is checked before it is used and a chain is followed for no
// more steps than there are slots. Whoever changes a chain holds the table's semaphore; a slot is
// linked with release order, so that who follows the chain without it finds the slot filled.
#pragma once

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "hash.h"
#include "index_stack.h"
#include "shared_field.h"
#include "shmem.h"

namespace agt {

inline constexpr int NO_SLOT = -1;

template <class Table>
inline constexpr int table_slots = static_cast<int>(std::extent_v<decltype(Table::h_arr)>);

template <class Table>
inline constexpr int table_buckets = static_cast<int>(std::extent_v<decltype(Table::h_idx)>);

// Whether `index` is the number of a slot.
template <class Table> bool is_slot(int index) {
    return index >= 0 && index < table_slots<Table>;
}

// The bucket of a key of `size` bytes.
template <class Table> int bucket_of(const void* key, std::size_t size) {
    constexpr unsigned int buckets = table_buckets<Table>;
    return static_cast<int>(get_hidx(key, size, buckets - 1));
}

struct chain_place {
    int slot = NO_SLOT; // that was looked for; NO_SLOT when the chain does not hold it
    int tail = NO_SLOT; // visited last, behind which a new one is to be linked
    int stray =
        NO_SLOT; // a number that is no slot's, or that the chain came back to: it ended the search
};

// Looks in the chain of `bucket` for the first slot whose `param` the predicate accepts.
template <class Table, class Predicate>
chain_place find_in_chain(const Table& table, int bucket, Predicate accepts) {
    chain_place place;
    int slot = shared_load(table.h_idx[bucket], std::memory_order_acquire);
    for (int steps = 0; slot != NO_SLOT; ++steps) {
        if (!is_slot<Table>(slot) || steps == table_slots<Table>) {
            place.stray = slot;
            break;
        }
        place.tail = slot;
        if (accepts(table.h_arr[slot].param)) {
            place.slot = slot;
            break;
        }
        slot = shared_load(table.h_arr[slot].next_idx, std::memory_order_acquire);
    }
    return place;
}

// Links a slot behind `tail`, or as the first of its bucket when that is NO_SLOT.
template <class Table> void append_to_chain(Table& table, int bucket, int slot, int tail) {
    auto& entry = table.h_arr[slot];
    entry.my_idx = static_cast<unsigned int>(slot);
    entry.hash_idx = bucket;
    entry.pre_idx = tail;
    entry.next_idx = NO_SLOT;
    shared_store(tail == NO_SLOT ? table.h_idx[bucket] : table.h_arr[tail].next_idx, slot,
                 std::memory_order_release);
}

// Takes a slot out of its chain; what the slot holds stays.
template <class Table> void unlink_from_chain(Table& table, int slot) {
    const int bucket = table.h_arr[slot].hash_idx;
    const int before = table.h_arr[slot].pre_idx;
    const int after = table.h_arr[slot].next_idx;
    if (is_slot<Table>(before))
        shared_store(table.h_arr[before].next_idx, after);
    else if (bucket >= 0 && bucket < table_buckets<Table>)
        shared_store(table.h_idx[bucket], after);
    if (is_slot<Table>(after))
        shared_store(table.h_arr[after].pre_idx, before);
}

// Whether every slot is on one of the two stacks. A process that is inserting or deleting under the
// table's semaphore has one slot in its hands.
template <class Table> bool stacks_add_up(const Table& table) {
    return static_cast<long>(shared_load(table.used.top)) +
               static_cast<long>(shared_load(table.available.top)) ==
           table_slots<Table>;
}

// Empties a table: the caller holds its semaphore, or nobody else uses it yet.
template <class Table> void clear_hash_tbl(Table& table) {
    shared_store(table.alloc_cnt, 0u);
    std::memset(table.h_idx, 0xff, sizeof table.h_idx); // NO_SLOT
    clear_shm(table.h_arr, sizeof table.h_arr);
    shared_store(table.used.top, 0u);
    stack_fill(table.available);
}

// Fill level of a table in per cent of its slots; -1.0 when it is not attached.
template <class Table> float hash_tbl_used_pcnt(const Table* table) {
    if (table == nullptr)
        return -1.0F;
    return static_cast<float>(shared_load(table->used.top) * 100.0 / table_slots<Table>);
}

} // namespace agt
