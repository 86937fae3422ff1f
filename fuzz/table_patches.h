// The tables of the agent in this process, and what is laid over them.
#pragma once

#include "harness.h"
#include "kessard/noti_send_que.h"
#include "kessard/parse_log_que.h"

namespace fuzz {

// Slots and stack entries that patches name; walks of a full table take their time.
inline constexpr unsigned MANY_ENTRIES = 16;

inline NOTI_SEND_QUE_POOL* noti_pool = nullptr;
inline PARSE_LOG_QUE_POOL* parse_pool = nullptr;

// Makes the tables, the settings and the queues and attaches them as the daemon's; what leaves a
// table at its end meets a page that cannot be touched.
void make_tables();

// Brings all of them back to what they were when they were made.
void empty_tables();

// Takes patches up to the end: where (a byte), at which byte of it (two), how many bytes (one), the
// bytes.
void patch_tables(reader& from);

} // namespace fuzz
