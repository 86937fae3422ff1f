// What the console shows of a log: files of known lines, without a daemon.
#include "checks.h"

namespace {

using namespace test_support;

constexpr char FIRST_DAY[] = "11-23 09:59:59  (I) start\n11-23 10:00:00  ##### table #####\n\n"
                             "11-23 10:00:01  ###(I) statistics\nget \x1b\n"
                             "11-23 10:00:02  <!> cannot \xff\n";
constexpr char SECOND_DAY[] = "11-24 00:00:00  >> first\n11-24 00:00:01  dump\nits rest\n";

std::string day(const std::string& date) {
    return "logs/proc/kessard/kessard-" + date + "-log";
}

class ConsoleLog : public testing::Test {
  protected:
    agent a;

    ConsoleLog() {
        a.variables["TZ"] = "CET-1CEST,M3.5.0,M10.5.0/3";
        a.write_cfg();
        a.write_file(day("2019-11-23"), FIRST_DAY);
        a.write_file(day("2019-11-24"), SECOND_DAY);
        a.write_file(day("2019-11-25") + ".gz", "12");
    }
    std::string log(texts words) const {
        words.insert(words.begin(), "log");
        return a.run(words);
    }
};

TEST_F(ConsoleLog, ShowsWhatIsAskedFor) {
    const std::string warning = "11-23 10:00:02  <!> cannot \xff\n";
    const std::string from_statistics =
        "0\n11-23 10:00:01  ###(I) statistics\nget \\x1b\n" + warning + SECOND_DAY;
    EXPECT_EQ(log({"-n", "1"}), "0\n11-24 00:00:01  dump\nits rest\n");
    EXPECT_EQ(log({"-n", "2", "--level", "info"}), "0\n" + warning + "11-24 00:00:00  >> first\n");
    EXPECT_EQ(log({"-n", "9", "--since", "2019-11-23 10:00:01"}), from_statistics);
    EXPECT_EQ(log({"-n", "4"}), from_statistics);
    EXPECT_EQ(log({"--since", "2019-11-24T00:00"}), std::string("0\n") + SECOND_DAY);
    EXPECT_EQ(log({"--since", "10m"}), "0\n");
    const std::string json = log({"--json", "--since", "2019-11-23 10:00:01", "--level", "info"});
    EXPECT_EQ(json.substr(0, json.find('\n', 2)),
              R"(0
{"time":"2019-11-23T10:00:01+01:00","level":"info","text":"###(I) statistics\nget \u001b"})");
    EXPECT_EQ(std::count(json.begin(), json.end(), '\n'), 4);
}

TEST_F(ConsoleLog, FindsATimeInALongFile) {
    std::string text;
    for (int sec = 0; sec < 86400; ++sec)
        text += local_text("06-01 %T  (i) line\nmore\n", sec) + std::string(sec % 7, '\n');
    a.write_file(day("2020-06-01"), text);
    for (const char* time : {"00:00:01", "11:22:33", "23:59:59"})
        EXPECT_TRUE(log({"--since", std::string("2020-06-01 ") + time}) ==
                    "0\n" + text.substr(text.find(time) - 6))
            << time;
}

TEST_F(ConsoleLog, RefusesWhatItCannotShow) {
    for (const char* time : {"", "10", "m", "2019-02-30", "24:61", "2019-11-23 10:00x", "9999999d"})
        EXPECT_TRUE(
            in_order(log({"--since", time}), {"2\n", "--since: '", "' is no time; say 10m"}));
    a.write_file("agt.cfg", "[COMMON]\nLOG_HOME = " + a.path("none") + "\n");
    EXPECT_EQ(log({}), "2\nkessctl: the log cannot be read: " + a.path("none/proc/kessard") +
                           ": No such file or directory\n");
}

TEST_F(ConsoleLog, FollowsOverMidnight) {
    const std::string next = day("2019-11-25");
    process follower({KESSCTL_PROGRAM, "log", "--follow", "-n", "2"}, a.variables);
    std::string wanted;
    const auto expect = [&](const std::string& text) {
        wanted += text;
        EXPECT_TRUE(wait_until([&] { return follower.out() == wanted; })) << follower.out();
    };
    expect(SECOND_DAY);
    std::filesystem::rename(a.path(day("2019-11-24")), a.path("renamed"));
    std::ofstream(a.path("renamed"), std::ios::app) << "11-24 23:59:59  (i) on it goes";
    a.write_file(next, "11-25 00:00:00  (i) next day\n");
    expect("11-24 23:59:59  (i) on it goes\n11-25 00:00:00  (i) next day\n");
    a.write_file(next, "11-25 00:00:01  (i) cut\n"); // shorter
    expect("11-25 00:00:01  (i) cut\n");
    std::filesystem::remove(a.path(next));
    a.write_file(next, "11-25 00:00:02  (i) made anew\n");
    expect("11-25 00:00:02  (i) made anew\n");
    kill(follower.pid(), SIGINT);
    EXPECT_EQ(follower.wait_exit(), 0);
}

} // namespace
