// The parse-log queue.
#pragma once

#include <cstddef>

#include "kessard/parse_log_que.h"

namespace kessard {

// Creates or opens the pool of `key`, attaches it and chooses queue `index`; *existed tells which,
// and a new queue starts empty. The segment's identifier, negative on failure.
[[nodiscard]] int create_parse_log_que(int key, int index, int* existed);

// Detaches the pool; 0, or -1.
// Nothing in the programs calls it.
int detach_parse_log_que();

// Copies a record of `length` bytes into the chosen queue. 1, or -1 when it is full. Producers
// serialise among themselves with the queue's semaphore.
int put_parse_log_que(const void* record, std::size_t length);

// Puts a `rear` that is out of range back to `front`, which drops what was queued. Whether it was.
// The caller holds the queue's semaphore.
bool repair_parse_log_que();

// Takes the next record; it stays valid in the queue until producers have gone round the ring. Null
// when there is none. One consumer only.
// Nothing in the programs calls it.
PARSE_LOG_QUE_DATA* get_parse_log_que();

// Records waiting.
// Nothing in the programs calls it.
int get_parse_log_queueing();

} // namespace kessard
