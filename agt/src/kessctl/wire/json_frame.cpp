// Messages as JSON lines.
#include "wire/json_frame.h"

#include <nlohmann/json.hpp>

namespace kessctl {
namespace {

// "elements[0].limit" as the path "/elements/0/limit".
nlohmann::ordered_json::json_pointer path_of(const std::string& name) {
    std::string path = "/";
    for (const char c : name)
        if (c != ']')
            path += c == '[' || c == '.' ? '/' : c;
    return nlohmann::ordered_json::json_pointer(path);
}

} // namespace

nlohmann::ordered_json fields_json(const std::vector<field_value>& fields) {
    nlohmann::ordered_json all = nlohmann::ordered_json::object();
    for (const field_value& field : fields)
        all[path_of(field.name)] = field.text;
    return all;
}

std::string json_line(const std::string& time, const traffic& seen) {
    nlohmann::ordered_json line = {{"time", time},
                                   {"connection", seen.connection},
                                   {"direction", seen.sent ? "sent" : "received"}};
    if (const std::optional<TCP_CMD_MSG> frame = frame_of(seen.bytes)) {
        line["message"] = message_name(frame->hdr.msg_type[0]);
        line["fields"] = fields_json(decode(*frame));
    } else {
        line["bytes"] = seen.bytes.size();
    }
    return line.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
}

} // namespace kessctl
