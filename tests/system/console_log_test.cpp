// What the console shows of a log: files of known lines, without a daemon.
#include <nlohmann/json.hpp>

#include "checks.h"

namespace {

using namespace test_support;
using nlohmann::json;

// Two days: one in a winter, as lines of the daemon, and the next.
class ConsoleLog : public testing::Test {
  protected:
    agent a;

    ConsoleLog() {
        a.variables["TZ"] = "CET-1CEST,M3.5.0,M10.5.0/3";
        a.write_cfg();
        write_day("2019-11-23", "11-23 09:59:59  (I) start\n"
                                "11-23 10:00:00  ##### table #####\n\n"
                                "11-23 10:00:01  ###(I) statistics\nget 1\n\x1b[2J\n"
                                "11-23 10:00:02  <!> cannot \xff\n");
        write_day("2019-11-24", "11-24 00:00:00  >> first\n11-24 00:00:01  dump\nits rest\n");
        a.write_file("logs/proc/kessard/kessard-2019-11-25-log.gz", "12");
    }
    void write_day(const std::string& day, const std::string& text) const {
        a.write_file(file_of(day), text);
    }
    static std::string file_of(const std::string& day) {
        return "logs/proc/kessard/kessard-" + day + "-log";
    }
    std::string log(texts words) const {
        words.insert(words.begin(), "log");
        return a.run(words);
    }
};

TEST_F(ConsoleLog, ShowsTheEndOfSeveralDays) {
    EXPECT_EQ(log({"-n", "1"}), "0\n11-24 00:00:01  dump\nits rest\n");
    EXPECT_EQ(log({"-n", "2", "--level", "info"}),
              "0\n11-23 10:00:02  <!> cannot \xff\n11-24 00:00:00  >> first\n");
    EXPECT_EQ(log({"-n", "4", "--since", "2019-11-23 10:00:01"}),
              "0\n11-23 10:00:01  ###(I) statistics\nget 1\n\\x1b[2J\n"
              "11-23 10:00:02  <!> cannot \xff\n"
              "11-24 00:00:00  >> first\n11-24 00:00:01  dump\nits rest\n");
    EXPECT_EQ(log({"--level", "warning"}), "0\n11-23 10:00:02  <!> cannot \xff\n");
    EXPECT_EQ(log({"--since", "2019-11-24T00:00"}), log({"-n", "2"}));
    EXPECT_EQ(log({"--since", "10m"}), "0\n");
    std::string first = content(a.path(file_of("2019-11-23")));
    EXPECT_EQ(log({}), "0\n" + first.replace(first.find('\x1b'), 1, "\\x1b") +
                           content(a.path(file_of("2019-11-24"))));
}

TEST_F(ConsoleLog, MakesOneObjectOfAMessage) {
    texts lines;
    std::istringstream all(a.console({"log", "--json", "--since", "2019-11-23 10:00"}).out);
    for (std::string line; std::getline(all, line);)
        lines.push_back(line);
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(json::parse(lines[0]),
              json({{"time", "2019-11-23T10:00:00+01:00"}, {"text", "##### table #####"}}));
    EXPECT_EQ(json::parse(lines[1]), json({{"time", "2019-11-23T10:00:01+01:00"},
                                           {"level", "info"},
                                           {"text", "###(I) statistics\nget 1\n\x1b[2J"}}));
    EXPECT_EQ(json::parse(lines[2])["level"], "warning");
}

// Half a million lines, of which each begins where halving must find it.
TEST_F(ConsoleLog, FindsATimeInALongFile) {
    std::string text;
    for (int sec = 0; sec < 86400; ++sec)
        text += local_text("06-01 %T  (i) line\nmore\n", sec) + std::string(sec % 7, '\n');
    a.variables["TZ"] = "UTC";
    write_day("2020-06-01", text);
    for (const char* time : {"00:00:00", "00:00:01", "11:22:33", "23:59:59"})
        EXPECT_TRUE(log({"--since", std::string("2020-06-01 ") + time}) ==
                    "0\n" + text.substr(text.find(time) - 6))
            << time;
}

TEST_F(ConsoleLog, RefusesWhatItCannotShow) {
    for (const char* time : {"", "10", "m", "2019-02-30", "24:61", "2019-11-23 10:00x", "9999999d"})
        EXPECT_TRUE(in_order(log({"--since", time}), {"2\n--since: '", "' is no time; say 10m"}))
            << time;
    a.write_file("agt.cfg", "[COMMON]\nLOG_HOME = " + a.path("none") + "\n");
    EXPECT_EQ(log({}), "2\nkessctl: the log cannot be read: " + a.path("none/proc/kessard") +
                           ": No such file or directory\n");
    std::filesystem::create_directories(a.path("none/proc/kessard"));
    EXPECT_TRUE(in_order(log({}), {"2\n", "/proc/kessard holds no log of kessard\n"}));
}

TEST_F(ConsoleLog, FollowsOverMidnight) {
    const std::string today = a.path(file_of("2019-11-24"));
    const auto append = [](const std::string& file, const std::string& text) {
        std::ofstream(file, std::ios::app) << text;
    };
    process follower({KESSCTL_PROGRAM, "log", "--follow", "-n", "1"}, a.variables);
    std::string wanted;
    const auto expect = [&](const std::string& text) {
        wanted += text;
        EXPECT_TRUE(wait_until([&] { return follower.out() == wanted; })) << follower.out();
    };
    expect("11-24 00:00:01  dump\nits rest\n");
    append(today, "11-24 23:59:58  (i) one\nand more\n");
    expect("11-24 23:59:58  (i) one\nand more\n");
    std::filesystem::rename(today, a.path("renamed"));
    append(a.path("renamed"), "11-24 23:59:59  (i) on it goes");
    write_day("2019-11-25", "11-25 00:00:00  (i) next day\n");
    expect("11-24 23:59:59  (i) on it goes\n11-25 00:00:00  (i) next day\n");
    write_day("2019-11-25", "11-25 00:00:01  (i) cut\n"); // shorter
    expect("11-25 00:00:01  (i) cut\n");
    std::filesystem::remove(a.path(file_of("2019-11-25")));
    write_day("2019-11-25", "11-25 00:00:02  (i) made anew, and longer\n");
    expect("11-25 00:00:02  (i) made anew, and longer\n");
    kill(follower.pid(), SIGINT);
    EXPECT_EQ(follower.wait_exit(), 0);
}

} // namespace
