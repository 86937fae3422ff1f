// The configuration reader: what it finds, what it refuses and what it says about it.
#include "read_cfg.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "agent_fixture.h"

namespace {

std::string repeat(std::size_t n, char c) {
    return std::string(n, c);
}

// The comment of 300 characters is read as two lines; behind 255 characters of the other one an entry begins.
const std::string CFG =
    "ONE = early\n[FIRST]\nONE = 1 2 3\nTIGHT=1\n\t INDENTED\t=  1\r\n#COMMENT = 1\n" // lines 1 to 6
    "NOTE = a # note\n   \n\nEMPTY =\nBARE\n#" +                                      // 7 to 11
    repeat(298, '-') +
    "\nLATE = x = y\n#" + repeat(254, '-') + "TAIL = 7\n" + // 12 to 16
    "MANY = 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17\nWIDE = " + repeat(63, 'w') + " " + repeat(64, 'w') +
    "\nONE = second\n[ABD] ABC\nIN_ABD = yes\n[OPEN\n[FIRST]\nSECOND = 1\n" +
    "[LAST]\nIN_LAST = end"; // line 25, without a line end

TEST(ReadCfg, FindsTheWordOrSaysWhyNot) {
    const std::string no = "[get_string_in_section] not found keyword[";
    const struct {
        std::string section;
        std::string keyword;
        int n;
        std::string word;
        std::string said; // instead of a word: what standard error ends with
    } cases[] = {{"FIRST", "ONE", 1, "1", ""},
                 {"FIRST", "ONE", 3, "3", ""},
                 {"FIRST", "ONE", 4, "", "can't found nth(4) token; file=FILE, section=FIRST, keyword=ONE, lnum=3\n"},
                 {"FIRST", "ONE", 0, "", "can't found nth(0) token; file=FILE, section=FIRST, keyword=ONE, lnum=3\n"},
                 {"FIRST", "TIGHT", 1, "", no + "TIGHT]\n" + no + "TIGHT]; file=FILE, section=FIRST\n"},
                 {"FIRST", "INDENTED", 1, "1", ""},
                 {"FIRST", "COMMENT", 1, "", no + "COMMENT]; file=FILE, section=FIRST\n"},
                 {"FIRST", "one", 1, "", no + "one]; file=FILE, section=FIRST\n"},
                 {"FIRST", "NOTE", 2, "#", ""},
                 {"FIRST", "EMPTY", 1, "", "section=FIRST, keyword=EMPTY, lnum=10\n"},
                 {"FIRST", "BARE", 1, "", "section=FIRST, keyword=BARE, lnum=11\n"},
                 {"FIRST", "LATE", 2, "=", ""},
                 {"FIRST", "TAIL", 2, "", "section=FIRST, keyword=TAIL, lnum=16\n"},
                 {"FIRST", "MANY", 16, "16", ""},
                 {"FIRST", "MANY", 17, "", "section=FIRST, keyword=MANY, lnum=17\n"},
                 {"FIRST", "WIDE", 2, repeat(64, 'w'), ""},
                 {"FIRST", "SECOND", 1, "", no + "SECOND]; file=FILE, section=FIRST\n"},
                 {"ABC", "IN_ABD", 1, "yes", ""},
                 {"LAST", "IN_LAST", 1, "end", ""},
                 {"OPEN", "ONE", 1, "", "[seek_section] not found section[OPEN] in file[FILE]\n"}};
    test_support::agent directory;
    directory.write_file("cfg", CFG);
    const std::string file = directory.path("cfg");
    for (const auto& one : cases) {
        std::string wanted = one.said;
        if (const std::size_t at = wanted.find("FILE"); at != std::string::npos)
            wanted.replace(at, 4, file);
        char word[agt::CFG_WORD_SIZE] = "untouched";
        testing::internal::CaptureStderr();
        const int ret =
            agt::get_nth_token_in_file_section(file.c_str(), one.section.c_str(), one.keyword.c_str(), one.n, word);
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_EQ(ret, one.said.empty() ? 1 : -1) << one.keyword;
        EXPECT_EQ(word, one.said.empty() ? one.word : "untouched");
        EXPECT_TRUE(one.said.empty() ? said.empty() : said.ends_with(wanted)) << said;
    }
}

// Callers tell an absent key from an unreadable file by errno.
TEST(ReadCfg, LeavesErrnoAloneWhenItCannotComplain) {
    test_support::agent directory;
    directory.write_file("cfg", CFG);
    const agt::unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    const agt::unique_fd usual(dup(STDERR_FILENO));
    char word[agt::CFG_WORD_SIZE];
    dup2(full.get(), STDERR_FILENO);
    errno = 0;
    const int ret = agt::get_nth_token_in_file_section(directory.path("cfg").c_str(), "FIRST", "ABSENT", 1, word);
    const int error = errno;
    dup2(usual.get(), STDERR_FILENO);
    EXPECT_EQ(ret, -1);
    EXPECT_EQ(error, 0);
}

} // namespace
