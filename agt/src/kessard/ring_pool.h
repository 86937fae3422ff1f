// A pool of shared ring queues, of which the process uses one: what the notification queue and the
// parse-log queue have in common.
#pragma once

#include <cstddef>
#include <type_traits>

#include "open_object.h"
#include "ring_queue.h"
#include "shmem.h"

namespace kessard {

// One object per pool, with static storage. `Pool` has the queues in que[].
template <class Pool> class ring_pool {
  public:
    constexpr explicit ring_pool(const agt::shared_object& object) : object_(object) {}

    // Makes or opens the pool of `key` and chooses queue `index`, which starts empty in a new pool;
    // *existed tells which. The segment's identifier, -1 on failure.
    int create(int key, int index, int* existed) {
        opened_object opened;
        if (!open_object(object_, key, &opened))
            return -1;
        pool_ = static_cast<Pool*>(opened.address);
        que_ = &pool_->que[index];
        *existed = opened.existed ? 1 : 0;
        if (!opened.existed) {
            agt::shared_store(que_->info.front, 0);
            agt::shared_store(que_->info.rear, 0);
        }
        return opened.id;
    }

    // Detaches the pool; 0, or -1.
    int detach() {
        const int ret = agt::detach_shm(pool_);
        pool_ = nullptr;
        que_ = nullptr;
        return ret;
    }

    // As ring_put, ring_take and ring_count of the chosen queue; -1, null and 0 without one.
    int put(const void* record, std::size_t length) {
        return que_ == nullptr || is_full() ? -1 : agt::ring_put(*que_, record, length);
    }
    // Whether a `rear` out of range was put back; the caller holds the queue's semaphore.
    bool repair_rear() { return que_ != nullptr && agt::ring_repair_rear(*que_); }
    // Whether records can be taken: `rear` is the number of a slot.
    bool is_sound() const {
        return que_ == nullptr || agt::ring_index_valid<queue>(agt::ring_load(*que_).rear);
    }
    auto* take() { return is_empty() ? nullptr : agt::ring_take(*que_); }
    int count() const { return que_ == nullptr ? 0 : agt::ring_count(*que_); }

    bool is_full() const { return agt::ring_full(*que_); }
    bool is_empty() const { return que_ == nullptr || agt::ring_empty(*que_); }

  private:
    using queue = std::remove_extent_t<decltype(Pool::que)>;

    const agt::shared_object& object_;
    Pool* pool_ = nullptr;
    queue* que_ = nullptr;
};

} // namespace kessard
