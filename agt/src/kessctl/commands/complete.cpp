// What may stand next on a command line.
#include "commands/complete.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <sstream>

namespace kessctl {
namespace {

void offer(const std::string& name, const std::string& help, const std::string& begun) {
    if (name.starts_with(begun))
        std::printf("%s\t%s\n", name.c_str(), help.substr(0, help.find('\n')).c_str());
}

// The subcommand of that name; null without one.
const CLI::App* subcommand_of(const CLI::App& command, const std::string& name) {
    const std::vector<const CLI::App*> all = command.get_subcommands({});
    const auto found = std::find_if(all.begin(), all.end(),
                                    [&](const CLI::App* one) { return one->get_name() == name; });
    return found == all.end() ? nullptr : *found;
}

// The option of a command that a word names and that takes a value of its own; null without one.
const CLI::Option* value_option(const CLI::App& command, const std::string& word) {
    const CLI::Option* found = word.starts_with('-') ? command.get_option_no_throw(word) : nullptr;
    return found != nullptr && found->get_items_expected_max() > 0 ? found : nullptr;
}

// The values of an option that names them, which its help does as {one,two}.
void offer_values(const CLI::Option& option, const std::string& begun) {
    const std::string type = option.get_type_name();
    const std::size_t at = type.find('{');
    if (at == type.npos)
        return;
    std::istringstream values(type.substr(at + 1, type.find('}') - at - 1));
    for (std::string value; std::getline(values, value, ',');)
        offer(value, "", begun);
}

} // namespace

void print_completions(const CLI::App& app, const std::vector<std::string>& words) {
    const CLI::App* command = &app;
    const std::string begun = words.empty() ? "" : words.back();
    const CLI::Option* waiting = nullptr; // for its value
    for (std::size_t i = 0; i + 1 < words.size(); ++i) {
        const CLI::App* inner = waiting == nullptr ? subcommand_of(*command, words[i]) : nullptr;
        waiting = waiting == nullptr ? value_option(*command, words[i]) : nullptr;
        command = inner == nullptr ? command : inner;
    }
    if (waiting != nullptr)
        return offer_values(*waiting, begun);
    if (!begun.starts_with('-'))
        for (const CLI::App* one : command->get_subcommands({}))
            offer(one->get_name(), one->get_description(), begun);
    else
        for (const CLI::Option* option : command->get_options())
            for (const std::string& name : option->get_lnames())
                offer("--" + name, option->get_description(), begun);
}

} // namespace kessctl
