// The service table: what the server's service lists do to it.
#pragma once

#include "kessard/cmd_msg.h"
#include "kessard/svc_hash_tbl.h"

namespace kessard {

// The attached table and its semaphore set; null and -1 until opened.
extern SVC_HASH_TBL* svc_hash_tbl;
extern int svc_hash_tbl_semid;

// Creates or opens the table and its semaphore under the configured keys and empties a new one
// under semaphore 0; logs each step. False on failure. The first retrieval of the list is the
// caller's.
[[nodiscard]] bool open_svc_hash_tbl();

// Empties the table; the caller holds its semaphore. 1.
int init_svc_hash_tbl();

// Inserts, overwrites ('Y') or deletes ('D') one service by update_mode[0]; the caller holds the
// semaphore. The slot concerned; null when the table is full, when 'D' finds nothing, or when
// another mode than 'A', 'X', 'Y' and 'D' meets a service that is there already.
SVC_HASH_ARR_LIST* set_svc_hash_tbl(const SERVICE_ELEMENT* element);

// The entry of a service; null without one. Changes may be under way.
const SVC_HASH_ARR_LIST* find_svc_hash_tbl(const char* service_id);

} // namespace kessard
