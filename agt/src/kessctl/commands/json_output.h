// Answers as JSON on standard output; docs/console-json.md has their fields.
#pragma once

#include <nlohmann/json_fwd.hpp>

namespace CLI {
class App;
} // namespace CLI

namespace kessctl {

// Adds --json.
void add_json_flag(CLI::App& command, bool& json);

// Prints a value, indented; bytes that are no UTF-8 are replaced.
void print_json(const nlohmann::ordered_json& value);

} // namespace kessctl
