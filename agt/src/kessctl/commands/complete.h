// What may stand next on a command line: the shells' completions, which are made of it.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
} // namespace CLI

namespace kessctl {

// Prints what the last of the words may become behind the others, a name and its description on
// each line with a tab between them; nothing where that is a file or a text of the user's own.
void print_completions(const CLI::App& app, const std::vector<std::string>& words);

} // namespace kessctl
