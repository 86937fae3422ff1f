// Text put together piece by piece.
#include "line_text.h"

#include <cstdio>
#include <type_traits>

namespace agt {

void line_text::add(std::string_view piece) {
    const std::size_t taken = std::min(piece.size(), room());
    std::memcpy(at_, piece.data(), taken);
    at_ += taken;
}

template <class Signed> void line_text::add_number(char conversion, Signed piece) {
    if (conversion == 'd')
        add(piece);
    else
        add(static_cast<std::make_unsigned_t<Signed>>(piece));
}

// False when something is met that is not for here; what has been added is then not to be used.
bool line_text::add_simply(const char* fmt, va_list args) {
    for (;;) {
        const char* conversion = strchrnul(fmt, '%');
        add(std::string_view(fmt, static_cast<std::size_t>(conversion - fmt)));
        if (*conversion == '\0')
            return true;
        const bool is_long = *++conversion == 'l';
        conversion += is_long ? 1 : 0;
        if (*conversion != 'd' && *conversion != 'u' && (is_long || *conversion != 's'))
            return false;
        if (*conversion != 's' && is_long)
            add_number(*conversion, va_arg(args, long));
        else if (*conversion != 's')
            add_number(*conversion, va_arg(args, int));
        else if (const char* text = va_arg(args, const char*); text != nullptr)
            add(std::string_view(text));
        else
            return false;
        fmt = conversion + 1;
    }
}

void line_text::add_formatted(const char* fmt, va_list args) {
    char* start = at_;
    va_list again;
    va_copy(again, args);
    if (!add_simply(fmt, args)) {
        at_ = start;
        char text[4096];
        const int length = std::vsnprintf(text, sizeof text, fmt, again);
        add(length < 0 ? "" : std::string_view(text));
    }
    va_end(again);
}

} // namespace agt
