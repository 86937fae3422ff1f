// Fixed-width text fields of the wire and of the shared tables: char[N] holding at most N-1
// characters and a last byte, which is a terminator whatever the sender put there.
#pragma once

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>

namespace agt {

// Bytes of a field before its terminator, at most `size`.
inline std::size_t text_length(const char* text, std::size_t size) {
    return strnlen(text, size);
}

// Copies `text` into `out`, cut to fit and terminated; the rest of `out` is left alone.
template <std::size_t N> void copy_text(char (&out)[N], const char* text) {
    const std::size_t length = text_length(text, N - 1);
    std::memcpy(out, text, length);
    out[length] = '\0';
}

// A terminated copy of a field.
template <std::size_t N> struct field_text {
    char text[N];
    explicit field_text(const char (&field)[N]) {
        std::memcpy(text, field, N - 1);
        text[N - 1] = '\0';
    }
    operator const char*() const { return text; }
};

// Left-justified, padded with blanks to N-1 characters, cut to them, terminated.
template <std::size_t N> void put_text(char (&field)[N], const char* text) {
    constexpr int width = static_cast<int>(N) - 1;
    std::snprintf(field, N, "%-*.*s", width, width, text);
}

// Padded with leading zeros to N-1 digits; a number that needs more characters keeps its first N-1.
template <std::size_t N> void put_number(char (&field)[N], long value) {
    constexpr int width = static_cast<int>(N) - 1;
    char text[N + 24];
    std::snprintf(text, sizeof text, "%-*.*ld", width, width, value);
    copy_text(field, text);
}

// At least `width` characters with `decimals` decimals, left-justified, cut to N-1 characters.
template <std::size_t N> void put_decimal(char (&field)[N], double value, int width, int decimals) {
    char text[400]; // the longest double and its decimals
    std::snprintf(text, sizeof text, "%-*.*f", width, decimals, value);
    copy_text(field, text);
}

// Two decimals, left-justified, padded with blanks to N-1 characters.
template <std::size_t N> void put_percent(char (&field)[N], double value) {
    put_decimal(field, value, static_cast<int>(N) - 1, 2);
}

// The decimal value of a field; 0 when it holds no number.
// Leading blanks are skipped and what follows the digits is ignored; a value beyond the range of
// long is the nearest one.
template <std::size_t N> long get_long(const char (&field)[N]) {
    const char* end = field + N - 1;
    const char* at =
        std::find_if(field, end, [](char c) { return c != ' ' && (c < '\t' || c > '\r'); });
    if (at != end && *at == '+' && *++at == '-')
        return 0;
    long value = 0;
    if (std::from_chars(at, end, value).ec == std::errc::result_out_of_range)
        return *at == '-' ? LONG_MIN : LONG_MAX;
    return value;
}

// The same as an int; a value beyond its range loses its high bits.
template <std::size_t N> int get_number(const char (&field)[N]) {
    return static_cast<int>(get_long(field));
}

} // namespace agt
