// The order of a service table.
#include "service_table.h"

#include <bitset>
#include <cstring>

#include "hash.h"

namespace fuzz {
namespace {

constexpr unsigned RECENT_SLOTS = 128;

using slots = std::bitset<SVC_HASH_SLOTS>;

std::string slot_fault(const SVC_HASH_TBL& table, int slot, int bucket, int before) {
    const SVC_HASH_ARR_LIST& entry = table.h_arr[slot];
    const SVC_HASH_ARR& param = entry.param;
    if (entry.hash_idx != bucket || entry.pre_idx != before ||
        entry.my_idx != static_cast<unsigned>(slot))
        return "slot " + std::to_string(slot) + " is not linked as its chain is";
    if (agt::get_hidx(param.service_id, SVC_HASH_KEY_SIZE, SVC_HASH_BUCKETS - 1) !=
        static_cast<unsigned>(bucket))
        return "slot " + std::to_string(slot) + " is in another service's chain";
    if (param.host_name[sizeof param.host_name - 1] != '\0' ||
        param.server_id[sizeof param.server_id - 1] != '\0' ||
        param.service_id[sizeof param.service_id - 1] != '\0')
        return "a text of slot " + std::to_string(slot) + " has no end";
    return {};
}

// Walks a chain and marks its slots in `seen`.
std::string chain_fault(const SVC_HASH_TBL& table, int bucket, slots& seen) {
    int before = -1;
    for (int s = table.h_idx[bucket]; s != -1; s = table.h_arr[s].next_idx) {
        if (s < 0 || s >= SVC_HASH_SLOTS || seen[static_cast<std::size_t>(s)])
            return "bucket " + std::to_string(bucket) + " leads to slot " + std::to_string(s);
        seen.set(static_cast<std::size_t>(s));
        if (std::string fault = slot_fault(table, s, bucket, before); !fault.empty())
            return fault;
        before = s;
    }
    return {};
}

// Marks the slots of a stack; false when one is no slot or was marked before.
bool take_stack(const SVC_HASH_STK& stack, slots& seen) {
    for (unsigned i = 0; i < stack.top; ++i) {
        if (stack.idx[i] >= SVC_HASH_SLOTS || seen[stack.idx[i]])
            return false;
        seen.set(stack.idx[i]);
    }
    return true;
}

} // namespace

std::string table_fault(const SVC_HASH_TBL& table) {
    if (table.alloc_cnt != table.used.top || table.used.top > SVC_HASH_SLOTS ||
        table.used.top + table.available.top != SVC_HASH_SLOTS)
        return "counts differ";
    slots chained;
    for (int bucket = 0; bucket < SVC_HASH_BUCKETS; ++bucket)
        if (table.h_idx[bucket] != -1)
            if (std::string fault = chain_fault(table, bucket, chained); !fault.empty())
                return fault;
    slots stacked;
    if (!take_stack(table.used, stacked) || stacked != chained)
        return "the used stack differs from the chains";
    return take_stack(table.available, stacked) ? "" : "a slot is in both stacks";
}

void empty_table(SVC_HASH_TBL& table) {
    for (unsigned i = 0; i < table.used.top; ++i)
        table.h_idx[table.h_arr[table.used.idx[i]].hash_idx] = -1;
    for (unsigned s = SVC_HASH_SLOTS - RECENT_SLOTS; s < SVC_HASH_SLOTS; ++s)
        table.available.idx[s] = s;
    std::memset(&table.h_arr[SVC_HASH_SLOTS - RECENT_SLOTS], 0,
                RECENT_SLOTS * sizeof table.h_arr[0]);
    std::memset(table.used.idx, 0, RECENT_SLOTS * sizeof table.used.idx[0]);
    table.alloc_cnt = 0;
    table.used.top = 0;
    table.available.top = SVC_HASH_SLOTS;
}

} // namespace fuzz
