// The order of a service table.
#pragma once

#include <string>

#include "kessard/svc_hash_tbl.h"

namespace fuzz {

// What is wrong with a table's counts, stacks, chains and texts; empty when it is in order.
std::string table_fault(const SVC_HASH_TBL& table);

// Empties a table that is in order and of which only the 128 slots that are handed out first have
// ever been in use: the same as emptying it as the daemon does, in a fraction of the time.
void empty_table(SVC_HASH_TBL& table);

} // namespace fuzz
