// Text that others wrote.
#include "printable.h"

#include <cstdint>

namespace agt {
namespace {

constexpr std::size_t WORD = sizeof(std::uint64_t); // bytes that are looked at together

bool is_control(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

bool has_control(std::uint64_t word) {
    constexpr std::uint64_t each = 0x0101010101010101;
    const std::uint64_t deleted = word ^ (each * 0x7f);
    return ((((word - each * 0x20) & ~word) | ((deleted - each) & ~deleted)) & (each * 0x80)) != 0;
}

// False for a word with a control byte.
bool copy_word(const char* from, char* out) {
    std::uint64_t word;
    std::memcpy(&word, from, sizeof word);
    std::memcpy(out, &word, sizeof word);
    return !has_control(word);
}

// False for a text with a control byte.
bool copy_plain(std::string_view text, char* out) {
    std::size_t at = 0;
    for (; at + WORD <= text.size(); at += WORD)
        if (!copy_word(text.data() + at, out + at))
            return false;
    if (at > 0) // the last word overlaps the one before
        return copy_word(text.data() + text.size() - WORD, out + text.size() - WORD);
    for (; at < text.size(); ++at)
        if (out[at] = text[at]; is_control(text[at]))
            return false;
    return true;
}

} // namespace

std::size_t put_shown(std::string_view text, std::string_view kept, char* out, std::size_t room) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    if (text.size() <= room && copy_plain(text, out))
        return text.size();
    std::size_t used = 0;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const char escaped[] = {'\\', 'x', DIGITS[byte >> 4], DIGITS[byte & 15]};
        const bool stays = !is_control(c) || kept.find(c) != kept.npos;
        used += (stays ? std::string_view(&c, 1) : std::string_view(escaped, sizeof escaped))
                    .copy(out + used, room - used);
    }
    return used;
}

} // namespace agt
