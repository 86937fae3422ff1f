// Text that others wrote, as the log and a terminal may show it.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace agt {

// `text` with every control byte (below 0x20, and 0x7f) written as \xHH, but for those of `kept`.
// All other bytes stay.
std::string printable(std::string_view text, std::string_view kept = {});

// The same of one character.
inline std::string printable(char c) {
    return printable(std::string_view(&c, 1));
}

// The same of a field of a fixed width, whose last byte is its terminator whatever it holds.
template <std::size_t N> std::string printable(const char (&field)[N]) {
    return printable(std::string_view(field, strnlen(field, N - 1)));
}

} // namespace agt
