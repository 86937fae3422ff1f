// Answers as JSON on standard output.
#include "commands/json_output.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace kessctl {

void add_json_flag(CLI::App& command, bool& json) {
    command.add_flag("--json", json, "Print JSON");
}

void print_json(const nlohmann::ordered_json& value) {
    std::puts(value.dump(2, ' ', true, nlohmann::ordered_json::error_handler_t::replace).c_str());
}

} // namespace kessctl
