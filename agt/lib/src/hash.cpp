// One-at-a-time hash.
#include "hash.h"

namespace agt {

unsigned int get_hash_code(const void* key, std::size_t len) {
    const auto* bytes = static_cast<const unsigned char*>(key);
    unsigned int h = 0;
    for (std::size_t i = 0; i < len; ++i) {
        h += bytes[i];
        h += h << 10;
        h ^= h >> 6;
    }
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
}

unsigned int get_hidx(const void* key, std::size_t len, unsigned int mask) {
    return get_hash_code(key, len) & mask;
}

} // namespace agt
