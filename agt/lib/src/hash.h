// The hash of the shared tables: one-at-a-time, 32 bits.
#pragma once

#include <cstddef>

namespace agt {

// The hash of exactly `len` bytes at `key`.
unsigned int get_hash_code(const void* key, std::size_t len);

// The bucket of a key: its hash AND `mask`.
unsigned int get_hidx(const void* key, std::size_t len, unsigned int mask);

} // namespace agt
