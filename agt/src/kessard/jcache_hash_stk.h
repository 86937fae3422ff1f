// The cache table: creation and index stacks.
#pragma once

#include "kessard/jcache_hash_tbl.h"

namespace kessard {

// The attached table; null until created.
extern JCACHE_HASH_TBL* jcache_hash_tbl;

// Creates or opens the table and its semaphore under the configured keys and initialises a new one
// under semaphore 0; logs each step. 1, or 0 on failure.
[[nodiscard]] int create_jcache_hash_tbl();

// Empties the attached table; the caller holds its semaphore. 1.
int init_jcache_hash_tbl();

// Puts `index` on top; the new `top`, or -1 when the stack holds 2,000,000 entries.
// Nothing in the programs calls it.
int jcache_hash_push(JCACHE_HASH_STK* stack, unsigned int index);

// Takes the index on top; -1 when the stack is empty.
// Nothing in the programs calls it.
int jcache_hash_pop(JCACHE_HASH_STK* stack);

// Fill level in per cent of its slots; -1.0 when the table is not attached.
float get_jcache_hashtbl_used_pcnt();

} // namespace kessard
