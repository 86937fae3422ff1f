// The letters of the log types.
#include "log_flags.h"

#include "kessard/tran_logf_que_info.h"

namespace agt {
namespace {

struct flag_letter {
    unsigned char bit;
    char letter;
};
constexpr flag_letter FLAG_LETTERS[] = {{LOG_FLAG_S, 'S'}, {LOG_FLAG_E, 'E'}, {LOG_FLAG_V, 'V'},
                                        {LOG_FLAG_B, 'B'}, {LOG_FLAG_C, 'C'}, {LOG_FLAG_I, 'I'},
                                        {LOG_FLAG_X, 'X'}, {LOG_FLAG_Q, 'Q'}};

} // namespace

unsigned char flags_of_letters(std::string_view letters) {
    unsigned int flags = 0;
    for (const char letter : letters) {
        for (const flag_letter& known : FLAG_LETTERS)
            flags |= letter == known.letter ? known.bit : 0u;
    }
    return static_cast<unsigned char>(flags);
}

std::string letters_of_flags(unsigned char flags) {
    std::string letters;
    for (const flag_letter& known : FLAG_LETTERS) {
        if ((flags & known.bit) != 0)
            letters += known.letter;
    }
    return letters;
}

} // namespace agt
