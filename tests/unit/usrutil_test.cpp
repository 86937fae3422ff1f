// Splitting, environment references, directories.
#include "usrutil.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "agent_fixture.h"

namespace {

using namespace std::string_literals;
using pieces = std::vector<std::string>;

pieces split(std::string text, const char* separators, int max) {
    char* found[8];
    const int count = agt::str_split(text.data(), separators, found, max);
    return pieces(found, found + count);
}

TEST(StrSplit, KeepsEmptyPiecesAndTheRestInTheLast) {
    EXPECT_EQ(split("a\x1f"
                    "b\x1f"
                    "c",
                    "\x1f", 8),
              (pieces{"a", "b", "c"}));
    EXPECT_EQ(split("a,;b,", ",;", 8), (pieces{"a", "", "b", ""}));
    EXPECT_EQ(split("a,b,c,d", ",", 3), (pieces{"a", "b", "c,d"}));
    EXPECT_EQ(split("a,b", ",", 1), (pieces{"a,b"}));
    EXPECT_EQ(split(",", ",", 8), (pieces{"", ""}));
}

TEST(StrSplit, FindsNothingWithoutTextSeparatorsOrRoom) {
    char* found[1];
    char text[] = "a";
    EXPECT_EQ(agt::str_split(nullptr, ",", found, 1), 0);
    EXPECT_EQ(agt::str_split(text, nullptr, found, 1), 0);
    EXPECT_EQ(split("", ",", 8), pieces{});
    EXPECT_EQ(split("a", "", 8), pieces{});
    EXPECT_EQ(split("a,b", ",", 0), pieces{});
    EXPECT_EQ(split("a,b", ",", -1), pieces{});
}

class Env2Str : public testing::Test {
  protected:
    Env2Str() {
        setenv("KT_A", "value", 1);
        setenv("KT_LONG", std::string(200, 'l').c_str(), 1);
        unsetenv("KT_NONE");
    }
    static std::string expand(const std::string& text) {
        char out[2048];
        EXPECT_TRUE(agt::env2str(text.c_str(), out, sizeof out)) << text;
        return out;
    }
};

TEST_F(Env2Str, ReplacesReferencesOfEveryForm) {
    EXPECT_EQ(expand("$KT_A/x"), "value/x");
    EXPECT_EQ(expand("/a/${KT_A}b$(KT_A)"), "/a/valuebvalue");
    EXPECT_EQ(expand("${KT_A) $KT_A}"), "value value"); // brackets need not match
    EXPECT_EQ(expand("$KT_NONE-${KT_NONE}"), "$KT_NONE-${KT_NONE}");
    EXPECT_EQ(expand("$ $/ {x}"), "$ $/ {x}");
    EXPECT_EQ(expand(""), "");
    EXPECT_EQ(expand("$KT_LONG."), std::string(127, 'l') + ".");
}

TEST_F(Env2Str, ReplacesTenReferencesAndNoMore) {
    std::string text;
    std::string expanded;
    for (int i = 0; i < 12; ++i) {
        text += "$KT_A/";
        expanded += i < 10 ? "value/" : "$KT_A/";
    }
    EXPECT_EQ(expand(text), expanded);
}

TEST_F(Env2Str, RefusesAnExpansionThatDoesNotFit) {
    std::string out(16, 'x');
    EXPECT_TRUE(agt::env2str("$KT_A/901234567", out.data(), 16));
    EXPECT_EQ(out, "value/901234567\0"s);
    EXPECT_FALSE(agt::env2str("$KT_A/9012345678", out.data(), 16));
    EXPECT_EQ(out, std::string(16, '\0'));
    EXPECT_FALSE(agt::env2str("0123456789012345", out.data(), 16));
}

TEST(GetProcname, IsWhatFollowsTheLastSlash) {
    EXPECT_STREQ(agt::get_procname("/usr/bin/x"), "x");
    EXPECT_STREQ(agt::get_procname("x"), "x");
    EXPECT_STREQ(agt::get_procname("/a/"), "");
    EXPECT_STREQ(agt::get_procname(""), "");
    EXPECT_STREQ(agt::get_procname(nullptr), "");
}

class Makedir : public testing::Test {
  protected:
    Makedir() {
        std::ofstream(dir + "/file") << "text";
        std::filesystem::create_directory(dir + "/there");
        std::filesystem::create_symlink(dir + "/there", dir + "/link");
    }
    static mode_t mode_of(const std::string& path) {
        struct stat info {};
        stat(path.c_str(), &info);
        return info.st_mode & 07777;
    }

    test_support::agent home;
    const std::string dir = home.home();
};

TEST_F(Makedir, TellsWhatLiesAtAPath) {
    EXPECT_EQ(agt::is_file_exist(nullptr), 0);
    EXPECT_EQ(agt::is_file_exist((dir + "/none").c_str()), 0);
    EXPECT_EQ(agt::is_file_exist((dir + "/file").c_str()), 1);
    EXPECT_EQ(agt::is_file_exist((dir + "/there").c_str()), 2);
    EXPECT_EQ(agt::is_file_exist((dir + "/link").c_str()), 3);
    EXPECT_EQ(agt::is_file_exist("/dev/null"), 3);
}

TEST_F(Makedir, MakesAllPartsOfAPath) {
    const mode_t before = umask(0);
    EXPECT_EQ(agt::makedir((dir + "/there//a/b/").c_str(), 0), 0);
    EXPECT_EQ(mode_of(dir + "/there/a/b"), 0775U);
    umask(027);
    EXPECT_EQ(agt::makedir((dir + "/there/../c").c_str(), 0), 0);
    EXPECT_EQ(mode_of(dir + "/c"), 0750U);
    umask(before);
    EXPECT_EQ(agt::makedir("/", 0), 0);
}

TEST_F(Makedir, ReplacesAFileOnlyWhenForced) {
    EXPECT_EQ(agt::makedir((dir + "/file/sub").c_str(), 0), -1);
    EXPECT_EQ(agt::is_file_exist((dir + "/file").c_str()), 1);
    EXPECT_EQ(agt::makedir((dir + "/file/sub").c_str(), 1), 0);
    EXPECT_EQ(agt::is_file_exist((dir + "/file/sub").c_str()), 2);
}

TEST_F(Makedir, FailsForWhatCannotBecomeADirectory) {
    std::string deep;
    for (int i = 0; i < 65; ++i)
        deep += "/d";
    for (const std::string& path :
         {dir + "/link/x", "/dev/null/x"s, "/proc/none"s, dir + "/" + std::string(256, 'n'), dir + deep, ""s})
        EXPECT_EQ(agt::makedir(path.c_str(), 1), -1) << path;
    EXPECT_EQ(agt::makedir(nullptr, 1), -1);
}

TEST_F(Makedir, SucceedsForAllWhoMakeTheSameAtOnce) {
    int failed[2] = {};
    const auto make_many = [&](int who) {
        for (int i = 0; i < 300; ++i)
            failed[who] -= agt::makedir((dir + "/m" + std::to_string(i) + "/x/y").c_str(), 0);
    };
    std::thread other(make_many, 1);
    make_many(0);
    other.join();
    EXPECT_EQ(failed[0] + failed[1], 0);
}

} // namespace
