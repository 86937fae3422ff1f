// The string tokenisers.
#include "str_util.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// The words of `text` between slashes; "-" is a field that is stored as null.
std::string split(int (*function)(char*, const char*, char**, int), std::string text, int limit) {
    char* stored[101];
    const int count = function(text.data(), ",;", stored, limit);
    std::string found;
    for (int i = 0; i < count; ++i)
        found += std::string(stored[i] == nullptr ? "-" : stored[i]) + "/";
    return found;
}

TEST(StrUtil, SplitsAtRunsAndAtSingleDelimiters) {
    const struct {
        const char* text;
        int limit;
        const char* merged;
        const char* single;
    } cases[] = {{"a,,b", 10, "a/b/", "a/-/b/"},
                 {"a,b,", 10, "a/b/", "a/b/"},
                 {",a", 10, "a/", "-/a/"},
                 {";a;,b", 3, "a/b/", "-/a/-/"},
                 {"a b", 10, "a b/", "a b/"},
                 {"a,b", 1, "a/", "a/"},
                 {"a,b", 0, "", ""},
                 {",,", 10, "", "-/-/"},
                 {"", 10, "", ""}};
    for (const auto& one : cases) {
        EXPECT_EQ(split(agt::tran_str_n_token, one.text, one.limit), one.merged) << one.text;
        EXPECT_EQ(split(agt::tran_str_n_token_single, one.text, one.limit), one.single) << one.text;
    }
}

TEST(StrUtil, SearchesTrimsAndCutsComments) {
    const char* const names[] = {"pulsed", "trail"};
    EXPECT_EQ(agt::tran_str_search("/bin/trailsink", names, 2), 0);
    EXPECT_EQ(agt::tran_str_search("/bin/trailsink", names, 1), -1);
    char text[] = " a\tb c \n";
    EXPECT_EQ(agt::tran_a_trim(text), 0);
    EXPECT_EQ(std::string(text, 5), std::string("abc\0\0", 5));
    EXPECT_EQ(agt::tran_a_trim(text + 3), -1); // empty
    EXPECT_EQ(agt::tran_a_trim(nullptr), -1);
    char comment[] = "# all of it";
    EXPECT_EQ(agt::tran_is_comment(comment), 1);
    char behind[] = "a # note";
    EXPECT_EQ(agt::tran_is_comment(behind), 0);
    EXPECT_STREQ(behind, "a ");
}

} // namespace
