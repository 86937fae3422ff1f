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

inline bool is_control(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

// Whether one of the eight bytes is a control byte.
inline bool has_control(std::uint64_t bytes) {
    constexpr std::uint64_t each = 0x0101010101010101;
    const std::uint64_t deleted = bytes ^ (each * 0x7f);
    return ((((bytes - each * 0x20) & ~bytes) | ((deleted - each) & ~deleted)) & (each * 0x80)) !=
           0;
}

// Copies a text without control bytes, eight at a time; false, with anything copied, for another.
inline bool copy_plain(std::string_view text, char* out) {
    std::uint64_t eight = 0;
    const auto copy_eight = [&](std::size_t at) {
        std::memcpy(&eight, text.data() + at, sizeof eight);
        std::memcpy(out + at, &eight, sizeof eight);
        return !has_control(eight);
    };
    std::size_t at = 0;
    for (; at + sizeof eight <= text.size(); at += sizeof eight)
        if (!copy_eight(at))
            return false;
    if (at > 0)
        return copy_eight(text.size() - sizeof eight);
    for (; at < text.size(); ++at)
        if (out[at] = text[at]; is_control(text[at]))
            return false;
    return true;
}

// Writes what shows `text`, cut to `room` bytes, to `out`; the control bytes in `kept` stay, too.
// The bytes written.
std::size_t put_escaped(std::string_view text, std::string_view kept, char* out, std::size_t room);

// The same, at once for a text without control bytes.
inline std::size_t put_shown(std::string_view text, std::string_view kept, char* out,
                             std::size_t room) {
    return text.size() <= room && copy_plain(text, out) ? text.size()
                                                        : put_escaped(text, kept, out, room);
}

// Such a text for a line of the log, which holds no more of it. Asks for no memory.
class printable {
  public:
    explicit printable(std::string_view text, std::string_view kept = {})
        : length_(put_shown(text, kept, text_, sizeof text_ - 1)) {
        text_[length_] = '\0';
    }
    explicit printable(char c) : printable(std::string_view(&c, 1)) {}
    template <std::size_t N>
    explicit printable(const char (&field)[N]) : printable(shown(field).text) {}

    const char* c_str() const { return text_; }
    std::string str() const { return {text_, length_}; }
    operator std::string_view() const { return {text_, length_}; }

  private:
    std::size_t length_;
    char text_[4096];
};

} // namespace agt
