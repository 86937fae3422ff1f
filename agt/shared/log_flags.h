// The letters of the log types, as the settings and the services name them: bits LOG_FLAG_*.
#pragma once

#include <string>
#include <string_view>

namespace agt {

// The bits of upper-case letters out of SEVBCIXQ; other characters count for nothing.
unsigned char flags_of_letters(std::string_view letters);

// The letters of the bits, in the order of the bits.
std::string letters_of_flags(unsigned char flags);

} // namespace agt
