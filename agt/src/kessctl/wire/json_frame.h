// Messages as JSON lines.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "wire/frame.h"
#include "wire/traffic.h"

namespace kessctl {

// One line without its end: time, connection, direction, the message's name and its fields, arrays
// nested. Bytes that are no message give their number instead.
std::string json_line(const std::string& time, const traffic& seen);

// Decoded fields by name, arrays nested.
nlohmann::ordered_json fields_json(const std::vector<field_value>& fields);

} // namespace kessctl
