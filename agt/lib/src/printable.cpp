// Text that others wrote, as it may be shown.
#include "printable.h"

namespace agt {
namespace {

bool is_control(unsigned char byte) {
    return byte < 0x20 || byte == 0x7f;
}

} // namespace

std::string printable(std::string_view text, std::string_view kept) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string shown;
    shown.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (is_control(byte) && kept.find(c) == kept.npos)
            shown += {'\\', 'x', DIGITS[byte >> 4], DIGITS[byte & 15]};
        else
            shown += c;
    }
    return shown;
}

} // namespace agt
