// Text that others wrote.
#include "printable.h"

namespace agt {

std::size_t put_escaped(std::string_view text, std::string_view kept, char* out, std::size_t room) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::size_t used = 0;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const char escaped[] = {'\\', 'x', DIGITS[byte >> 4], DIGITS[byte & 15]};
        const bool stays = !is_control(c) || kept.find(c) != kept.npos;
        used += (stays ? std::string_view(&c, 1) : std::string_view(escaped, sizeof escaped))
                    .copy(out + used, room - used);
    }
    return used;
}

} // namespace agt
