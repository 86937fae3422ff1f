// Decoded messages for people.
#include "wire/print_frame.h"
#include "wire/text.h"

#include <algorithm>

namespace kessctl {

void print_fields(std::FILE* out, const std::vector<field_value>& fields) {
    std::size_t width = 0;
    for (const field_value& field : fields)
        width = std::max(width, field.name.size());
    for (const field_value& field : fields)
        std::fprintf(out, "    %-*s : %s\n", static_cast<int>(width), field.name.c_str(),
                     printable(field.text).c_str());
}

void print_frame(std::FILE* out, const std::string& head, const TCP_CMD_MSG& frame) {
    std::fprintf(out, "%s%s\n", head.c_str(), message_name(frame.hdr.msg_type[0]));
    print_fields(out, decode(frame));
}

} // namespace kessctl
