// Text as a page of HTML may hold it.
#include "agent/html.h"

#include <cstdio>

namespace kessctl {

std::string html(std::string_view text) {
    std::string out;
    for (const char c : text) {
        const bool plain = c >= ' ' && c < '\x7f';
        char byte[8] = {c};
        if (!plain)
            std::snprintf(byte, sizeof byte, "\\x%02x", static_cast<unsigned char>(c));
        else if (c == '&' || c == '<' || c == '>' || c == '"' || c == '\'')
            std::snprintf(byte, sizeof byte, "&#%d;", c);
        out += byte;
    }
    return out;
}

std::string element(const char* name, const char* kind, std::string_view text) {
    const std::string start = *kind == '\0' ? name : std::string(name) + " class=" + kind;
    return "<" + start + ">" + html(text) + "</" + name + ">";
}

} // namespace kessctl
