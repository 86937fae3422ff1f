// Text in fields of a fixed width.
#include "wire/text.h"

#include <algorithm>
#include <cstring>

#include "printable.h"

namespace kessctl {

void put_field(char* field, std::size_t size, std::string_view text) {
    const std::size_t length = std::min(text.size(), size - 1);
    std::memset(field, ' ', size - 1);
    std::memcpy(field, text.data(), length);
    field[size - 1] = '\0';
}

std::string trimmed(const char* field, std::size_t size) {
    std::string text(field, strnlen(field, size));
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

std::string printable(std::string_view text, std::string_view kept) {
    std::string out(4 * text.size(), '\0');
    out.resize(agt::put_shown(text, kept, out.data(), out.size()));
    return out;
}

bool is_number(std::string_view text) {
    if (text.starts_with('-') || text.starts_with('+'))
        text.remove_prefix(1);
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::string field_fault(std::string_view text, std::size_t size, bool number) {
    if (text.size() > size - 1)
        return " is longer than " + std::to_string(size - 1) + " characters";
    return number && !is_number(text) ? " is not a number" : "";
}

} // namespace kessctl
