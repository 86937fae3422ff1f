// What --help prints.
#include "commands/help_text.h"

#include <CLI/CLI.hpp>
#include <sstream>

#include "agent/report_text.h"

namespace kessctl {
namespace {

constexpr std::size_t COLUMNS = 79;
constexpr std::size_t NAMES = 30; // columns in front of what is said of an option

std::string in_columns(const std::string& text) {
    std::istringstream lines(text);
    std::string out;
    for (std::string line; std::getline(lines, line);) {
        const std::size_t indent = line.size() > COLUMNS && line[0] == ' ' ? NAMES : 0;
        std::string before = line.substr(0, indent);
        for (const std::string& one : wrap(line.substr(indent), COLUMNS - indent)) {
            out += before + one + "\n";
            before = std::string(indent, ' ');
        }
    }
    return out;
}

} // namespace

void shape_help(CLI::App& app) {
    app.formatter_fn([](const CLI::App* command, std::string name, CLI::AppFormatMode mode) {
        CLI::Formatter plain;
        plain.column_width(NAMES);
        return in_columns(plain.make_help(command, std::move(name), mode));
    });
}

} // namespace kessctl
