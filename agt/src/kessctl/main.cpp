// kessctl: the operator's console of kessard.
#include <CLI/CLI.hpp>

#include "commands/commands.h"

// NOLINTNEXTLINE(bugprone-exception-escape): want of memory may end it
int main(int argc, char** argv) {
    using namespace kessctl;
    CLI::App app("Console of the kessard agent, and a stand-in for its central server.", "kessctl");
    exit_status status = EXIT_OK;
    app.require_subcommand(1);
    for (subcommand* const add : SUBCOMMANDS)
        add(app, &status);
    app.footer("Exit status: 0 done, 1 refused by the agent or failed there, 2 wrong usage or no "
               "connection.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& wrong) {
        return app.exit(wrong) == 0 ? EXIT_OK : EXIT_ERROR;
    }
    return status;
}
