// The liveness sweep over the trace table.
#pragma once

namespace kessard {

// Marks the entries of dead processes, for the entries whose turn it is. Switches tracing off when the table is corrupt.
// Called by the housekeeping thread alone.
void check_ptrc_hash_tbl();

} // namespace kessard
