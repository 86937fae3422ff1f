// Messages as JSON lines.
#pragma once

#include <string>

#include <nlohmann/json_fwd.hpp>

#include "wire/traffic.h"

namespace kessctl {

// One line without its end: time, connection, direction, the message's name and its fields, arrays
// nested. Bytes that are no message give their number instead.
std::string json_line(const std::string& time, const traffic& seen);

// The fields of a message by name, arrays nested.
nlohmann::ordered_json fields_json(const TCP_CMD_MSG& frame);

} // namespace kessctl
