// Text put together piece by piece in memory of a fixed size, which cuts it: what a printf would
// make at several times its speed.
#pragma once

#include <algorithm>
#include <charconv>
#include <concepts>
#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "printable.h"

namespace agt {

// The text that stands at the start of `bytes`, all of which may be read: copied at once.
template <std::size_t N> struct text_in {
    const char (&bytes)[N];
    std::size_t length;
};

class line_text {
  public:
    // Of at most `room` bytes from `out` on, which stay the caller's. There is no terminator.
    line_text(char* out, std::size_t room) : begin_(out), at_(out), limit_(out + room) {}

    void add(std::string_view piece);
    template <std::size_t N> void add(const char (&literal)[N]) {
        if (room() < N)
            return add(std::string_view(literal, N - 1));
        std::memcpy(at_, literal, N - 1);
        at_ += N - 1;
    }
    template <std::size_t N> void add(char (&)[N]) = delete; // how long is it?
    template <std::size_t N> void add(const text_in<N>& piece) {
        if (room() < N)
            return add(std::string_view(piece.bytes, piece.length));
        std::memcpy(at_, piece.bytes, N);
        at_ += piece.length;
    }
    void add(shown piece) { at_ += put_shown(piece.text, {}, at_, room()); }
    void add(char piece) { add(std::string_view(&piece, 1)); }
    template <std::integral Number> void add(Number piece) {
        if (room() >= LONGEST_NUMBER)
            at_ = std::to_chars(at_, limit_, piece).ptr;
        else
            add_cut(piece);
    }

    // Adds what vsnprintf makes of `fmt`, which ends at its first NUL. Simple conversions of texts
    // and numbers are done here.
    [[gnu::format(printf, 2, 0)]] void add_formatted(const char* fmt, va_list args);

    std::size_t size() const { return static_cast<std::size_t>(at_ - begin_); }
    operator std::string_view() const { return {begin_, size()}; }

  private:
    static constexpr std::size_t LONGEST_NUMBER = 20;

    std::size_t room() const { return static_cast<std::size_t>(limit_ - at_); }
    template <std::integral Number> void add_cut(Number piece) {
        char digits[LONGEST_NUMBER];
        const char* end = std::to_chars(digits, std::end(digits), piece).ptr;
        add(std::string_view(digits, static_cast<std::size_t>(end - digits)));
    }
    bool add_simply(const char* fmt, va_list args);
    template <class Signed> void add_number(char conversion, Signed piece);

    char* begin_;
    char* at_;
    char* limit_;
};

} // namespace agt
