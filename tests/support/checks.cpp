// What several tests look at.
#include "checks.h"

namespace test_support {
namespace {

// Walks one chain and counts its slots in `seen`.
std::string chain_fault(const SVC_HASH_TBL& table, int bucket, std::vector<int>& seen) {
    int before = -1;
    for (int s = table.h_idx[bucket]; s != -1; s = table.h_arr[s].next_idx) {
        if (s < 0 || s >= SVC_HASH_SLOTS || ++seen[static_cast<std::size_t>(s)] > 1)
            return "bucket " + std::to_string(bucket) + " leads to slot " + std::to_string(s);
        const SVC_HASH_ARR_LIST& slot = table.h_arr[s];
        if (slot.hash_idx != bucket || slot.pre_idx != before ||
            slot.my_idx != static_cast<unsigned>(s))
            return "slot " + std::to_string(s) + " is not linked as its chain is";
        before = s;
    }
    return {};
}

} // namespace

testing::AssertionResult in_order(const std::string& log, const texts& wanted) {
    std::size_t at = 0;
    for (const std::string& text : wanted) {
        const std::size_t found = log.find(text, at);
        if (found == std::string::npos)
            return testing::AssertionFailure() << "not found, or not in its place: " << text;
        at = found + text.size();
    }
    return testing::AssertionSuccess();
}

testing::AssertionResult in_order(const agent& one, const texts& wanted) {
    testing::AssertionResult result = in_order(one.log(), wanted);
    wait_until([&] { return result || (result = in_order(one.log(), wanted)); });
    return result;
}

void start_running(agent& one, const texts& options) {
    const char* const started = "start... running : 1"; // the command loop and two threads say so
    const std::size_t before = one.count_log(started);
    one.start(options);
    ASSERT_TRUE(one.wait_log(started, before + 3));
}

std::string table_fault(const SVC_HASH_TBL& table) {
    const unsigned used = table.used.top;
    if (table.alloc_cnt != used || used + table.available.top != SVC_HASH_SLOTS)
        return "counts differ";
    std::vector<int> chained(SVC_HASH_SLOTS);
    for (int bucket = 0; bucket < SVC_HASH_BUCKETS; ++bucket)
        if (const std::string fault = chain_fault(table, bucket, chained); !fault.empty())
            return fault;
    std::vector<int> stacked(SVC_HASH_SLOTS);
    for (unsigned i = 0; i < used; ++i)
        ++stacked.at(table.used.idx[i]);
    if (stacked != chained)
        return "the used stack differs from the chains";
    for (unsigned i = 0; i < table.available.top; ++i)
        ++stacked.at(table.available.idx[i]);
    const bool once = stacked == std::vector<int>(SVC_HASH_SLOTS, 1);
    return once ? "" : "a slot is not in exactly one stack";
}

} // namespace test_support
