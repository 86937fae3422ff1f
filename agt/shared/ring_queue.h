// The shared ring queues. `rear` is the slot last written, `front` the slot last read, one slot
// stays empty. Producers write `rear` only, behind the record; the consumer writes `front` only.
// Indexes come from shared memory and are checked before they are used.
//
// Neither side locks out the other; the indexes order what they guard, on every processor. `rear`
// is stored with release order behind the record and loaded with acquire order before it is read;
// `front` likewise: the consumer is done with a slot before it moves on, and a producer sees that
// it did before it writes there. Producers exclude each other by the semaphore.
#pragma once

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "shared_field.h"

namespace agt {

template <class Queue>
inline constexpr int ring_slots = static_cast<int>(std::extent_v<decltype(Queue::data)>);

template <class Queue> bool ring_index_valid(int index) {
    return index >= 0 && index < ring_slots<Queue>;
}

template <class Queue> int ring_next(int index) {
    return (index + 1) % ring_slots<Queue>;
}

struct ring_indexes {
    int front;
    int rear;
};

template <class Queue> ring_indexes ring_load(const Queue& queue) {
    return {shared_load(queue.info.front, std::memory_order_acquire),
            shared_load(queue.info.rear, std::memory_order_acquire)};
}

template <class Queue> bool ring_empty(const Queue& queue) {
    const ring_indexes at = ring_load(queue);
    return at.front == at.rear;
}

template <class Queue> bool ring_full(const Queue& queue) {
    const ring_indexes at = ring_load(queue);
    return ring_index_valid<Queue>(at.rear) && ring_next<Queue>(at.rear) == at.front;
}

// Copies `length` bytes of `record` into the next slot and publishes it. 1; -1 when the queue is
// full, its `rear` is out of range, or the record is longer than a slot.
template <class Queue> int ring_put(Queue& queue, const void* record, std::size_t length) {
    const int rear = ring_load(queue).rear;
    if (!ring_index_valid<Queue>(rear) || ring_full(queue) || length > sizeof queue.data[0])
        return -1;
    const int next = ring_next<Queue>(rear);
    std::memcpy(&queue.data[next], record, length);
    shared_store(queue.info.rear, next, std::memory_order_release);
    return 1;
}

// Puts a `rear` that is out of range back to `front`, which drops what was queued, so that the
// queue can be written to again. Whether it was. The caller is a producer and holds the semaphore.
template <class Queue> bool ring_repair_rear(Queue& queue) {
    const ring_indexes at = ring_load(queue);
    if (ring_index_valid<Queue>(at.rear))
        return false;
    shared_store(queue.info.rear, ring_index_valid<Queue>(at.front) ? at.front : 0,
                 std::memory_order_release);
    return true;
}

// Takes the next record, which stays valid in its slot until producers have gone round the ring;
// null when there is none. A `front` out of range is put back to `rear`, which drops what was
// queued; a `rear` out of range reads as empty.
template <class Queue> auto* ring_take(Queue& queue) {
    const ring_indexes at = ring_load(queue);
    decltype(&queue.data[0]) record = nullptr;
    if (at.front == at.rear || !ring_index_valid<Queue>(at.rear))
        return record;
    if (!ring_index_valid<Queue>(at.front)) {
        shared_store(queue.info.front, at.rear, std::memory_order_release);
        return record;
    }
    const int next = ring_next<Queue>(at.front);
    record = &queue.data[next];
    shared_store(queue.info.front, next, std::memory_order_release);
    return record;
}

// Records waiting; 0 when an index is out of range.
template <class Queue> int ring_count(const Queue& queue) {
    const ring_indexes at = ring_load(queue);
    if (!ring_index_valid<Queue>(at.front) || !ring_index_valid<Queue>(at.rear))
        return 0;
    return at.rear < at.front ? at.rear + ring_slots<Queue> - at.front : at.rear - at.front;
}

} // namespace agt
