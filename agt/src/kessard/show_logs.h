// Dumps of the shared tables to the log.
#pragma once

#include <cstdlib>
#include <memory>

#include "kessard/svc_hash_tbl.h"

namespace kessard {

struct malloc_deleter {
    void operator()(void* memory) const { std::free(memory); }
};
using svc_hash_tbl_copy = std::unique_ptr<SVC_HASH_TBL, malloc_deleter>;

// A copy of what a dump shows of `table`: its counts, its used stack and the used slots; the rest
// is not set. Null without memory for it. The caller holds the table's semaphore.
svc_hash_tbl_copy copy_svc_hash_tbl(const SVC_HASH_TBL& table);

// Writes every used entry of `table` to the log: fourteen lines each. The table must not change
// meanwhile: pass a copy, or hold its semaphore.
void show_svc_hash_tbl(const SVC_HASH_TBL& table);

} // namespace kessard
