// kessctl: the operator's console of kessard.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "commands/columns.h"
#include "commands/commands.h"
#include "commands/complete.h"
#include "commands/help_text.h"
#include "config_lines.h"
#include "host/agent_place.h"
#include "wire/text.h"

namespace {

using namespace kessctl;

// Nothing that is opened may take the place of a standard file that the caller closed: what is
// meant for that file would go there.
void hold_standard_files() {
    for (int fd = 0; fd <= 2; ++fd)
        if (fcntl(fd, F_GETFD) < 0)
            open("/dev/null", fd == 0 ? O_WRONLY : O_RDONLY);
}

// The names that may stand where a word was not understood: subcommands or options.
std::vector<std::string> names_in(const CLI::App& command, bool options) {
    std::vector<std::string> names;
    for (const CLI::Option* option : command.get_options())
        for (const std::string& name : option->get_lnames())
            if (options)
                names.push_back("--" + name);
    for (const CLI::App* one : command.get_subcommands({}))
        if (!options)
            names.push_back(one->get_name());
    return names;
}

// ", nearest is ..." when one of the names is near.
std::string nearest(const std::string& word, const std::vector<std::string>& names) {
    const auto found = std::find_if(names.begin(), names.end(), [&](const std::string& name) {
        return agt::is_near(word.substr(0, word.find('=')), name);
    });
    return found == names.end() ? "" : ", nearest is '" + *found + "'";
}

// ": one, two, three" of a command whose subcommands are still to be chosen from.
std::string choice(const CLI::App& command) {
    std::string text;
    for (const std::string& name : names_in(command, false))
        text += (text.empty() ? ": " : ", ") + name;
    return text;
}

// What is wrong with the words of a command line. Behind an option that is not known, words are
// most likely its values.
std::string explain(const CLI::App* app, const CLI::Error& wrong) {
    const CLI::App* command = app;
    while (!command->get_subcommands().empty())
        command = command->get_subcommands().back();
    const std::vector<std::string> words = app->remaining(true);
    const auto is_option = [](const std::string& word) { return word.starts_with("-"); };
    const bool options = std::any_of(words.begin(), words.end(), is_option);
    std::string text;
    for (const std::string& word : words)
        if (is_option(word) == options)
            text += fitted(STDERR_FILENO, "kessctl: there is no '" + printable(word) + "'" +
                                              nearest(word, names_in(*command, options)));
    if (text.empty())
        text = fitted(STDERR_FILENO, "kessctl: " + std::string(wrong.what()) + choice(*command));
    return text + "Run with --help for more information.\n";
}

// Takes --agent, which stands in front of the subcommand: where the subcommands find the agent when
// nothing else is said is in the environment. Empty on success, else what is wrong with the name.
std::string choose_agent(const char* first, const char* second) {
    const std::string word = first == nullptr ? "" : first;
    const std::string option = "--agent";
    if (word != option && !word.starts_with(option + "="))
        return "";
    const std::string name = word != option      ? word.substr(option.size() + 1)
                             : second == nullptr ? ""
                                                 : second;
    const agent_place place = place_of(name);
    setenv("TRAN_AGT_CFG_FILE", place.cfg_file.c_str(), 1);
    setenv("TRAN_AGT_HOME", place.home.c_str(), 1);
    return agent_name_fault(name);
}

// The outcome of a run: that of the command, unless what it wrote did not get through.
exit_status outcome(exit_status status) {
    errno = 0;
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
        return status;
    return complain(std::string("standard output cannot be written") +
                    (errno == 0 ? "" : std::string(": ") + std::strerror(errno)));
}

} // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): want of memory may end it
int main(int argc, char** argv) {
    hold_standard_files();
    CLI::App app("Console of the kessard agent, and a stand-in for its central server.", "kessctl");
    exit_status status = EXIT_OK;
    std::string agent_name;
    app.require_subcommand(1);
    shape_help(app);
    app.add_option("--agent", agent_name,
                   "Agent of the host, that of /etc/kessard/NAME/agt.cfg (default: that of "
                   "TRAN_AGT_CFG_FILE)");
    app.set_version_flag("--version", "kessctl " KESSARD_VERSION);
    if (const std::string wrong = choose_agent(argv[1], argc > 2 ? argv[2] : nullptr);
        !wrong.empty())
        return complain(wrong);
    for (subcommand* const add : SUBCOMMANDS)
        add(app, &status);
    app.failure_message(explain);
    app.footer("Exit status: 0 done, 1 refused by the agent or failed there, 2 wrong usage, no "
               "connection, or a standard output that cannot be written.");
    if (argc > 1 && std::string(argv[1]) == "--complete") {
        print_completions(app, {argv + 2, argv + argc});
        return outcome(EXIT_OK);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& wrong) {
        status = app.exit(wrong) == 0 ? EXIT_OK : EXIT_ERROR;
    }
    return outcome(status);
}
