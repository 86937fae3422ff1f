// The string tokenisers.
#include "str_util.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using words = std::vector<std::string>;
using splitter = int (*)(char*, const char*, char**, int);

// The words of `text`, "(null)" for an empty field that is stored as null.
words split(splitter function, std::string text, int limit) {
    char* stored[101];
    const int count = function(text.data(), ",;", stored, limit);
    words found;
    for (int i = 0; i < count; ++i)
        found.push_back(stored[i] == nullptr ? "(null)" : stored[i]);
    return found;
}

TEST(StrUtil, SplitsAtRunsAndAtSingleDelimiters) {
    const struct {
        const char* text;
        int limit;
        words merged;
        words single;
    } cases[] = {
        {"a,,b", 10, {"a", "b"}, {"a", "(null)", "b"}},
        {"a,b,", 10, {"a", "b"}, {"a", "b"}},
        {",a", 10, {"a"}, {"(null)", "a"}},
        {";a;,b", 3, {"a", "b"}, {"(null)", "a", "(null)"}},
        {"a b", 10, {"a b"}, {"a b"}},
        {"a,b", 1, {"a"}, {"a"}},
        {"a,b", 0, {}, {}},
        {",,", 10, {}, {"(null)", "(null)"}},
        {"", 10, {}, {}},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(split(agt::tran_str_n_token, one.text, one.limit), one.merged) << one.text;
        EXPECT_EQ(split(agt::tran_str_n_token_single, one.text, one.limit), one.single) << one.text;
    }
}

TEST(StrUtil, StopsAfterAHundredWords) {
    std::string text;
    for (int i = 0; i < 150; ++i)
        text += std::to_string(i) + ",";
    char* stored[101] = {};
    EXPECT_EQ(agt::tran_str_token(text.data(), ",", stored), 100);
    EXPECT_STREQ(stored[99], "99");
    EXPECT_EQ(stored[100], nullptr);
}

TEST(StrUtil, SearchesTrimsAndCutsComments) {
    const char* const names[] = {"pulsed", "trail"};
    EXPECT_EQ(agt::tran_str_search("/bin/trailsink", names, 2), 0);
    EXPECT_EQ(agt::tran_str_search("/bin/trailsink", names, 1), -1);
    EXPECT_EQ(agt::tran_str_search("tra", names, 2), -1);

    char text[] = " a\tb c \n";
    EXPECT_EQ(agt::tran_a_trim(text), 0);
    EXPECT_EQ(std::string(text, 5), std::string("abc\0\0", 5));
    char whole[] = "abc";
    EXPECT_EQ(agt::tran_a_trim(whole), 0);
    EXPECT_STREQ(whole, "abc");
    char empty[] = "";
    EXPECT_EQ(agt::tran_a_trim(empty), -1);
    EXPECT_EQ(agt::tran_a_trim(nullptr), -1);

    char comment[] = "# all of it";
    EXPECT_EQ(agt::tran_is_comment(comment), 1);
    EXPECT_STREQ(comment, "# all of it");
    char behind[] = "a # note";
    EXPECT_EQ(agt::tran_is_comment(behind), 0);
    EXPECT_STREQ(behind, "a ");
}

} // namespace
