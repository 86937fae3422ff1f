// The notification queue.
#pragma once

#include <cstddef>

#include "kessard/noti_send_que.h"

namespace kessard {

// Creates or opens the pool of `key`, attaches it and chooses queue `index`; *existed tells which,
// and a new queue starts empty. The segment's identifier, negative on failure.
[[nodiscard]] int create_noti_send_que(int key, int index, int* existed);

// Detaches the pool; 0, or -1.
// Nothing in the programs calls it.
int detach_noti_send_que();

// Copies a record of `length` bytes into the chosen queue. 1, or -1 when it is full. Producers
// serialise among themselves with the queue's semaphore.
// Nothing in the programs calls it.
int put_noti_send_que(const void* record, std::size_t length);

// Whether `rear`, which the producers write, is the number of a slot; nothing can be taken
// otherwise.
bool noti_send_que_sound();

// Takes the next record; it stays valid in the queue until producers have gone round the ring. Null
// when there is none. One consumer only.
NOTI_SEND_QUE_DATA* get_noti_send_que();

// Records waiting.
// Nothing in the programs calls it.
int get_noti_send_queueing();

} // namespace kessard
