// What --help prints.
#pragma once

namespace CLI {
class App;
}

namespace kessctl {

// Makes the help of `app`, and of the subcommands that it gets from now on, fit 80 columns.
void shape_help(CLI::App& app);

} // namespace kessctl
