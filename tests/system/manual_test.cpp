// The manual pages, the shell completion and the list of log lines against the programs, the table
// of keys and the sources.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <set>
#include <string>

#include "config_keys.h"
#include "process.h"

namespace {

using namespace test_support;
using names = std::set<std::string>;
using texts = std::vector<std::string>;

constexpr char SUBCOMMAND[] = "\n  ([a-z][a-z-]*)  "; // in a help, as the next
constexpr char OPTION[] = "(?:\n  |,)(--[a-z0-9-]+)";
const std::string ROOT = SOURCE_TREE;

names found(std::string text, const std::string& pattern) {
    names all;
    const std::regex wanted(pattern);
    for (std::smatch at; std::regex_search(text, at, wanted); text = at.suffix())
        all.insert(at[1]);
    return all;
}

std::string shell(const std::string& line) {
    const program_result ran = run_program({"/bin/bash", "-c", line});
    EXPECT_EQ(ran.err, "") << line;
    return ran.out;
}

// A page without escaped hyphens, one blank between words.
std::string page(const std::string& name) {
    return shell("sed 's/\\\\-/-/g' " + ROOT + "docs/man/" + name + " | tr -s ' \\n' ' '");
}

// The part of a page under a heading.
std::string part(const std::string& text, const std::string& heading) {
    const std::size_t start = text.find(".SS " + heading + " ");
    return start == text.npos
               ? ""
               : text.substr(start, std::min(text.find(".S", start + 1), text.size()) - start);
}

// How each shell asks what its completion offers behind the words "$@".
constexpr const char* SHELLS[] = {
    R"x(. $0.bash-completion; COMP_WORDS=(kessctl "$@"); COMP_CWORD=$#; _kessctl
        printf '%s\n' "${COMPREPLY[@]}")x",
    R"x(zsh -fc '_describe() { print -l -- ${${(P)2}%%:*}; }; _files() { print FILES; }
        file=$0.zsh-completion; words=(kessctl "$@"); CURRENT=$#words; . $file' $0 "$@")x",
    R"x(fish -Nc "source $0.fish-completion; complete -C 'kessctl $*'" | cut -f 1)x"};

// What all of them offer.
names completed(const texts& words) {
    names all;
    const std::string programs = std::filesystem::path(KESSCTL_PROGRAM).parent_path();
    for (const char* const ask : SHELLS) {
        texts line = {"/bin/bash", "-c", ask, ROOT + "scripts/kessctl"};
        line.insert(line.end(), words.begin(), words.end());
        const program_result ran =
            run_program(line, {{"PATH", programs + ":" + std::getenv("PATH")}});
        const names one = found(ran.out, "([^\n]+)\n");
        EXPECT_TRUE(all.empty() || one == all) << ask << ran.out << ran.err;
        all = one;
    }
    return all;
}

TEST(Manual, KnowsEverySubcommandAndOption) {
    const std::string text = page("kessctl.1");
    const names commands = found(shell(KESSCTL_PROGRAM " --help"), SUBCOMMAND);
    EXPECT_EQ(completed({""}), commands);
    EXPECT_EQ(found(text, "\\.SS ([a-z-]+)"), commands);
    for (const std::string& command : commands) {
        const std::string own = shell(KESSCTL_PROGRAM " " + command + " --help");
        names all = found(own, OPTION);
        EXPECT_EQ(completed({command, "--"}), all);
        for (const std::string& action : found(own, SUBCOMMAND)) {
            const std::string both = command + " " + action;
            names more = found(shell(KESSCTL_PROGRAM " " + both + " --help"), OPTION);
            EXPECT_EQ(completed({command, action, "--"}), more);
            EXPECT_NE(part(text, command).find(" " + action + " "), text.npos) << both;
            all.merge(more);
        }
        all.erase("--help");
        EXPECT_EQ(found(part(text, command), "(--[a-z0-9-]+)"), all) << command;
    }
    EXPECT_EQ(found(page("kessard.8"), "\\.TP \\.BI? (-[a-z])"),
              found(shell(KESSARD_PROGRAM " -h"), "\t (-[a-z]):"));
}

// Pages that name all keys, and how to read "SECTION KEYWORD" of each out of them.
constexpr const char* KEYS_IN[][2] = {
    {"docs/man/agt.cfg.5",
     R"(/^\.SS/ { s = $2 } last == ".TP" && /^\.B [A-Z_]+$/ { print s, $2 } { last = $0 })"},
    {"docs/configuration.md", R"($1 == "|" && $4 ~ /^[A-Z_]+$/ { print $2, $4 })"},
    {"agt/conf/agt.cfg",
     R"({ sub("^#", "") } /^\[/ { s = substr($1, 2, length($1) - 2) } /^[A-Z_]+ =/ { print s, $1 })"},
};

TEST(Manual, KnowsEveryKey) {
    const std::string text = page("agt.cfg.5");
    names in_table;
    for (const agt::config_key& key : agt::CONFIG_KEYS) {
        const std::string entry = std::string(".B ") + key.keyword + " " + key.help +
                                  ". Allowed: " + allowed_text(key) +
                                  (*key.otherwise == '\0' ? "." : ". Default: ") + key.otherwise;
        EXPECT_NE(part(text, key.section).find(entry), text.npos) << entry;
        in_table.insert(std::string(key.section) + " " + key.keyword);
    }
    for (const auto& [file, reader] : KEYS_IN)
        EXPECT_EQ(found(shell(std::string("awk '") + reader + "' " + ROOT + file), "([^\n]+)\n"),
                  in_table)
            << file;
}

TEST(Manual, KnowsEveryLogLine) {
    EXPECT_EQ(shell(ROOT + "scripts/check-log-lines"), "");
}

} // namespace
