// The indexes of a shared ring queue, looked at from outside.
#pragma once

#include <string>

#include "ring_queue.h"

namespace kessctl {

// "front 0, rear 70000 of 32768" when an index is out of range; empty when both are indexes of a
// Queue.
template <class Queue> std::string index_fault(agt::ring_indexes at) {
    if (agt::ring_index_valid<Queue>(at.front) && agt::ring_index_valid<Queue>(at.rear))
        return {};
    return "front " + std::to_string(at.front) + ", rear " + std::to_string(at.rear) + " of " +
           std::to_string(agt::ring_slots<Queue>);
}

// Records between indexes that are in range.
template <class Queue> int records_between(agt::ring_indexes at) {
    return (at.rear - at.front + agt::ring_slots<Queue>) % agt::ring_slots<Queue>;
}

} // namespace kessctl
