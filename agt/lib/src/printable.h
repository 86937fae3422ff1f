// Text that others wrote, as the log and a terminal may show it: control bytes (below 0x20, and
// 0x7f) become \xHH, all other bytes stay.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace agt {

// Text of others, to be shown.
struct shown {
    std::string_view text;
    explicit shown(std::string_view of) : text(of) {}
    // A field of a fixed width, whose last byte is its terminator whatever it holds.
    template <std::size_t N>
    explicit shown(const char (&field)[N]) : text(field, strnlen(field, N - 1)) {}
};

// Whether one of the eight bytes is a control byte.
inline bool has_control_byte(std::uint64_t bytes) {
    constexpr std::uint64_t each = 0x0101010101010101;
    const std::uint64_t deleted = bytes ^ (each * 0x7f);
    return (((bytes - each * 0x20) & ~bytes) | ((deleted - each) & ~deleted)) & (each * 0x80);
}

// Writes what shows `piece`, cut to `room` bytes, to `out`; the control bytes in `kept` stay, too.
// The bytes written.
inline std::size_t put_shown(shown piece, std::string_view kept, char* out, std::size_t room) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    const std::string_view text = piece.text.substr(0, room);
    std::size_t used = 0;
    for (std::uint64_t eight = 0; used + sizeof eight <= text.size(); used += sizeof eight) {
        std::memcpy(&eight, text.data() + used, sizeof eight);
        if (has_control_byte(eight))
            break;
        std::memcpy(out + used, &eight, sizeof eight);
    }
    for (const char c : text.substr(used)) {
        const auto byte = static_cast<unsigned char>(c);
        const bool stays = (byte >= 0x20 && byte != 0x7f) || kept.find(c) != kept.npos;
        const char digits[] = {'\\', 'x', DIGITS[byte >> 4], DIGITS[byte & 15]};
        used += (stays ? std::string_view(&c, 1) : std::string_view(digits, sizeof digits))
                    .copy(out + used, room - used);
    }
    return used;
}

// Such a text for a line of the log, which holds no more of it. Asks for no memory.
class printable {
  public:
    explicit printable(shown piece, std::string_view kept = {})
        : length_(put_shown(piece, kept, text_, sizeof text_ - 1)) {
        text_[length_] = '\0';
    }
    explicit printable(std::string_view text, std::string_view kept = {})
        : printable(shown(text), kept) {}
    explicit printable(char c) : printable(std::string_view(&c, 1)) {}
    template <std::size_t N> explicit printable(const char (&field)[N]) : printable(shown(field)) {}

    const char* c_str() const { return text_; }
    std::string str() const { return {text_, length_}; }
    operator std::string_view() const { return {text_, length_}; }

  private:
    std::size_t length_;
    char text_[4096];
};

} // namespace agt
