// Text that others wrote, as the log and a terminal may show it: control bytes (below 0x20, and
// 0x7f) become \xHH, all other bytes stay.
#pragma once

#include <cstddef>
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

// Writes what shows `text`, cut to `room` bytes, to `out`; the control bytes in `kept` stay, too.
// The bytes written. At once for a text without control bytes.
std::size_t put_shown(std::string_view text, std::string_view kept, char* out, std::size_t room);

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
