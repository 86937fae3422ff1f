// Text that others wrote, as the log and a terminal may show it: control bytes (below 0x20, and
// 0x7f) become \xHH, all other bytes stay.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace agt {

// Calls `put(char)` for every byte that shows `text`; the control bytes in `kept` stay, too.
template <class Put> void show_bytes(std::string_view text, std::string_view kept, Put put) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte >= 0x20 && byte != 0x7f) || kept.find(c) != kept.npos) {
            put(c);
            continue;
        }
        for (const char shown : {'\\', 'x', DIGITS[byte >> 4], DIGITS[byte & 15]})
            put(shown);
    }
}

// Such a text for a line of the log, which holds no more of it. Asks for no memory.
class printable {
  public:
    explicit printable(std::string_view text, std::string_view kept = {}) {
        show_bytes(text, kept, [this](char c) {
            if (length_ < sizeof text_ - 1)
                text_[length_++] = c;
        });
        text_[length_] = '\0';
    }
    explicit printable(char c) : printable(std::string_view(&c, 1)) {}
    // A field of a fixed width, whose last byte is its terminator whatever it holds.
    template <std::size_t N>
    explicit printable(const char (&field)[N])
        : printable(std::string_view(field, strnlen(field, N - 1))) {}

    const char* c_str() const { return text_; }
    std::string str() const { return {text_, length_}; }
    operator std::string_view() const { return {text_, length_}; }

  private:
    std::size_t length_ = 0;
    char text_[4096];
};

} // namespace agt
