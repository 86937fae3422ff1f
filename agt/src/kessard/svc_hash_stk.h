// The index stacks of the service table.
#pragma once

#include "kessard/svc_hash_tbl.h"

namespace kessard {

// Puts `index` on top; the new `top`, or -1 when the stack holds 10,000 entries.
int svc_hash_push(SVC_HASH_STK* stack, unsigned int index);

// Takes the index on top; -1 when the stack is empty.
int svc_hash_pop(SVC_HASH_STK* stack);

// Removes `index` from anywhere; it, or -1 when the stack does not hold it. The last entry takes
// its place.
int svc_hash_popv(SVC_HASH_STK* stack, unsigned int index);

// Writes the entries to the log.
// Nothing in the programs calls it.
void svc_hash_show(const SVC_HASH_STK* stack);

} // namespace kessard
