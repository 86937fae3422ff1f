// Single loads and stores of fields in shared memory, which other processes and threads access
// without a lock.
#pragma once

#include <atomic>

namespace agt {

template <class T>
T shared_load(const T& field, std::memory_order order = std::memory_order_relaxed) {
    return std::atomic_ref<T>(const_cast<T&>(field)).load(order);
}

template <class T>
void shared_store(T& field, T value, std::memory_order order = std::memory_order_relaxed) {
    std::atomic_ref<T>(field).store(value, order);
}

} // namespace agt
