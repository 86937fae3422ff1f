// The liveness sweep over the trace table.
#pragma once

namespace kessard {

// The names of the trace states, in the order of a traced call's life.
inline constexpr const char* trc_sts_msg[] = {
    "HASH_ALLOC_TRC_STS", "TRAN_INIT_TRC_STS",     "TRAN_START_TRC_STS", "TRAN_END_TRC_STS",
    "TRAN_DONE_TRC_STS",  "TRAN_EVT_SEND_TRC_STS", "PID_NOT_EXIST"};

// Marks the entries of dead processes, for the entries whose turn it is. Switches tracing off when
// the table is corrupt. Called by the housekeeping thread alone.
void check_ptrc_hash_tbl();

} // namespace kessard
