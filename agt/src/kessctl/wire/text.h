// Text in fields of a fixed width, and as it may be shown.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kessctl {

// Writes `text` left-justified into a field of `size` bytes: padded with blanks, cut to size - 1
// characters, terminated.
void put_field(char* field, std::size_t size, std::string_view text);

// The text of the first `size` bytes of a field, which need not have a terminator, without the
// blanks behind it.
std::string trimmed(const char* field, std::size_t size);

// `text` with its control bytes written as \xHH, but for those in `kept`.
std::string printable(std::string_view text, std::string_view kept = {});

// The text of a whole field, trimmed and printable.
template <std::size_t N> std::string shown(const char (&field)[N]) {
    return printable(trimmed(field, N));
}

// Whether `text` is a decimal number, with or without a sign.
bool is_number(std::string_view text);

// Why `text` cannot stand in a field of `size` bytes, or as a number where `number` asks for one:
// " is longer than ..." or " is not a number", to go behind the text. Empty when it can.
std::string field_fault(std::string_view text, std::size_t size, bool number);

} // namespace kessctl
