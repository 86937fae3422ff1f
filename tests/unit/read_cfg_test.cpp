// The configuration reader: what it finds, what it refuses and what it says about it.
#include "read_cfg.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "agent_fixture.h"

namespace {

const std::string LONG_COMMENT = "#" + std::string(298, '-') + "\n";           // read as two pieces
const std::string HIDDEN_ENTRY = "#" + std::string(254, '-') + "TAIL = 7\n";   // the second piece is an entry
const std::string CFG = "ONE = early\n"                                        // line 1
                        "[FIRST]\n"                                            // 2
                        "ONE = 1 2 3\n"                                        // 3
                        "TIGHT=1\n"                                            // 4
                        "\t INDENTED\t=  1\r\n"                                // 5
                        "#COMMENT = 1\n"                                       // 6
                        "NOTE = a # note\n"                                    // 7
                        "   \n\n"                                              // 8, 9
                        "EMPTY =\n"                                            // 10
                        "BARE\n" +                                             // 11
                        LONG_COMMENT +                                         // 12, 13
                        "LATE = x = y\n" +                                     // 14
                        HIDDEN_ENTRY +                                         // 15, 16
                        "SIXTEEN = 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17\n"
                        "W63 = " + std::string(63, 'w') + "\n"
                        "W64 = first " + std::string(64, 'w') + "\n"
                        "ONE = second\n"
                        "[ABD] ABC\n"
                        "IN_ABD = yes\n"
                        "[OPEN\n"
                        "[FIRST]\n"
                        "IN_SECOND_FIRST = 1\n"
                        "[LAST]\n"
                        "IN_LAST = end"; // no line end

struct lookup {
    const char* section;
    const char* keyword;
    int n;
    std::string word; // empty: refused
    std::string said; // the end of what stands on standard error
};

const lookup LOOKUPS[] = {
    {"FIRST", "ONE", 1, "1", ""},
    {"FIRST", "ONE", 2, "2", ""},
    {"FIRST", "ONE", 3, "3", ""},
    {"FIRST", "ONE", 4, "", "can't found nth(4) token; file=FILE, section=FIRST, keyword=ONE, lnum=3\n"},
    {"FIRST", "ONE", 0, "", "can't found nth(0) token; file=FILE, section=FIRST, keyword=ONE, lnum=3\n"},
    {"FIRST", "TIGHT", 1, "",
     "[get_string_in_section] not found keyword[TIGHT]\n"
     "[get_string_in_section] not found keyword[TIGHT]; file=FILE, section=FIRST\n"},
    {"FIRST", "INDENTED", 1, "1", ""},
    {"FIRST", "COMMENT", 1, "", "not found keyword[COMMENT]; file=FILE, section=FIRST\n"},
    {"FIRST", "one", 1, "", "not found keyword[one]; file=FILE, section=FIRST\n"},
    {"FIRST", "NOTE", 2, "#", ""},
    {"FIRST", "NOTE", 3, "note", ""},
    {"FIRST", "EMPTY", 1, "", "can't found nth(1) token; file=FILE, section=FIRST, keyword=EMPTY, lnum=10\n"},
    {"FIRST", "BARE", 1, "", "can't found nth(1) token; file=FILE, section=FIRST, keyword=BARE, lnum=11\n"},
    {"FIRST", "LATE", 4, "", "keyword=LATE, lnum=14\n"},
    {"FIRST", "LATE", 2, "=", ""},
    {"FIRST", "TAIL", 2, "", "keyword=TAIL, lnum=16\n"},
    {"FIRST", "SIXTEEN", 16, "16", ""},
    {"FIRST", "SIXTEEN", 17, "", "can't found nth(17) token; file=FILE, section=FIRST, keyword=SIXTEEN, lnum=17\n"},
    {"FIRST", "W63", 1, std::string(63, 'w'), ""},
    {"FIRST", "W64", 1, "first", ""},
    {"FIRST", "W64", 2, "", "section=FIRST, keyword=W64, lnum=19\n"},
    {"FIRST", "IN_SECOND_FIRST", 1, "", "not found keyword[IN_SECOND_FIRST]; file=FILE, section=FIRST\n"},
    {"FIRST", "IN_LAST", 1, "", "not found keyword[IN_LAST]; file=FILE, section=FIRST\n"},
    {"ABC", "IN_ABD", 1, "yes", ""},
    {"ABD", "IN_ABD", 1, "yes", ""},
    {"LAST", "IN_LAST", 1, "end", ""},
    {"OPEN", "ONE", 1, "", "[seek_section] not found section[OPEN]\n[seek_section] not found section[OPEN] in file[FILE]\n"},
};

std::string with_file(std::string text, const std::string& file) {
    const std::size_t at = text.find("FILE");
    return at == std::string::npos ? text : text.replace(at, 4, file);
}

TEST(ReadCfg, FindsTheWordOrSaysWhyNot) {
    test_support::agent directory;
    directory.write_file("cfg", CFG);
    const std::string file = directory.path("cfg");
    for (const lookup& one : LOOKUPS) {
        SCOPED_TRACE(std::string(one.section) + "/" + one.keyword + " " + std::to_string(one.n));
        char word[agt::CFG_WORD_SIZE] = "untouched";
        testing::internal::CaptureStderr();
        const int ret = agt::get_nth_token_in_file_section(file.c_str(), one.section, one.keyword, one.n, word);
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_EQ(ret, one.word.empty() ? -1 : 1);
        EXPECT_EQ(word, one.word.empty() ? "untouched" : one.word);
        EXPECT_TRUE(one.said.empty() ? said.empty() : said.ends_with(with_file(one.said, file))) << said;
        testing::internal::CaptureStderr();
        EXPECT_EQ(agt::find_nth_token_in_file_section(file.c_str(), one.section, one.keyword, one.n, word), ret);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    }
}

TEST(ReadCfg, RefusesWhatIsNoConfiguration) {
    test_support::agent directory;
    directory.write_file("empty", "");
    directory.write_file("zeros", std::string(3000, '\0'));
    directory.write_file("line", "[A]" + std::string(1 << 20, 'x'));
    for (const std::string& name : {"missing", "empty", "zeros", "line", "."}) {
        char word[agt::CFG_WORD_SIZE] = "untouched";
        testing::internal::CaptureStderr();
        EXPECT_EQ(agt::get_nth_token_in_file_section(directory.path(name).c_str(), "A", "K", 1, word), -1) << name;
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_EQ(said == "[get_nth_token_in_file_section] fopen fail[" + directory.path(name) +
                              "]; errno=2(No such file or directory)\n",
                  name == "missing")
            << said;
        EXPECT_STREQ(word, "untouched");
    }
}

TEST(ReadCfg, CountsLinesFromTheFileAndFromTheHeader) {
    test_support::agent directory;
    directory.write_file("cfg", CFG);
    std::FILE* file = std::fopen(directory.path("cfg").c_str(), "r");
    ASSERT_NE(file, nullptr);
    char value[agt::CFG_LINE_SIZE];
    EXPECT_EQ(agt::seek_section(file, "LAST"), 25);
    EXPECT_EQ(agt::seek_section(file, "FIRST"), 2);
    EXPECT_EQ(agt::get_string_in_section(file, "NOTE", value), 5);
    EXPECT_STREQ(value, "a # note\n");
    std::fclose(file);
}

} // namespace
