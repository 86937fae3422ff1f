// What the console says of an agent: status and metrics, through the real programs.
#include <poll.h>
#include <pty.h>
#include <termios.h>

#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "checks.h"

namespace {

using namespace test_support;
using nlohmann::json;

// An agent that stands still once it runs, so that nothing changes between two looks.
class Status : public testing::Test {
  protected:
    agent daemon;

    void start() {
        daemon.set("KESSARD", "WORKER_CHECK_INTERVAL", 0); // else objects come seconds later
        start_running(daemon);
        daemon.signal(SIGSTOP);
        ASSERT_EQ(waitpid(daemon.pid(), nullptr, WUNTRACED), daemon.pid());
    }
    program_result console(const texts& words) const { return daemon.console(words); }
    json look(int wanted_status, texts words = {}) const {
        words.insert(words.begin(), {"status", "--json"});
        const program_result done = console(words);
        EXPECT_EQ(done.status, wanted_status) << done.out << done.err;
        return json::parse(done.out, nullptr, false);
    }
    void expect_problem(const std::string& reason, int wanted_status = 1) const {
        const program_result done = console({"status"});
        EXPECT_EQ(done.status, wanted_status);
        EXPECT_TRUE(in_order(done.out, {reason})) << done.out;
    }
    void add_process(const char* name, pid_t pid, char state, char wanted) {
        PROCESS_INFO& row = daemon.segment()->proc_info[daemon.segment()->proc_num++];
        row = {0, pid, {}, {}, 0, state, wanted, 0, 0, 0, 0, 0};
        std::strcpy(row.proc_bin, name);
    }
};

TEST_F(Status, TellsWhatTheObjectsHold) {
    start();
    *daemon.settings() = {
        4, 3, TRACE_ON_MAGIC_CODE, LOG_FLAG_S | LOG_FLAG_Q, {}, 7, 100, 200, 300, 1, '1', 0, {}};
    SVC_HASH_TBL& table = *daemon.services();
    table.h_arr[17].param = {{}, {}, "ORDERS", 0, 0, 0, 0, 5, LOG_FLAG_E, 0, 0, 0};
    table.h_arr[4].param = {{}, {}, "PAYMENTS", 0, 0, 0, 0, 60, 0, 0, 0, 0};
    table.used = {2, {17, 4}};
    table.available.top = SVC_HASH_SLOTS - 2;
    add_process("collector", daemon.pid(), 2, 2);
    daemon.noti_que()->info = {32760, 5};
    daemon.segment()->que_stat[1] = {10, 1, 9, 2, 3, 12.5F};
    console({"put-trace", "--name", "billing", "--threads", "2", "--state", "h", "--alive", "0"});
    const json now = look(0, {"--services", "--sort", "limit"});
    const json wanted = json::parse(R"({
        "/status": "ok", "/reasons": [], "/settings/log_flags": "SQ", "/tables/service/used": 2,
        "/traces/states/h": 3, "/traces/dead": 3, "/traces/processes/0/name": "billing",
        "/services/0/service_id": "PAYMENTS", "/services/1/flags": "E", "/tables/cache/slots": 2e6,
        "/queues/notification/used": 13, "/processes/0/program": "collector",
        "/log_queues/1/out_discarded": 2, "/segments/SVC_HASH_TBL_SHMKEY/attaches": 2})");
    for (const auto& [path, value] : wanted.items())
        EXPECT_EQ(now.value(json::json_pointer(path), json()), value) << path;
    const std::string text = console({"status", "--filter", "orD"}).out;
    EXPECT_EQ(text.find('\x1b'), text.npos);
    EXPECT_TRUE(in_order(
        text, {"ok: kessard pid", "Traces: 1 process, 2 threads; 3 entries", "Services: 1 of 2"}))
        << text;
}

TEST_F(Status, NamesWhatIsWrong) {
    start();
    add_process("parser", daemon.pid(), 0, 1);
    expect_problem("process parser (row 0) is in state 0, wanted is 1");
    add_process("gone", INT_MAX, 1, 1);
    expect_problem("process gone (row 1) is dead: there is no pid 2147483647");
    daemon.noti_que()->info = {0, 32000};
    expect_problem("the notification queue is 97.7 % full");
}

TEST_F(Status, SurvivesCorruptObjects) {
    start();
    PTRC_HASH_TBL& traces = *daemon.traces();
    std::memset(daemon.services()->h_arr, 0xff, sizeof(SVC_HASH_ARR_LIST));
    daemon.services()->used = {2, {0, SVC_HASH_SLOTS}};
    traces.used.top = UINT_MAX;
    daemon.cache()->used.top = JCACHE_HASH_SLOTS + 1;
    std::memset(daemon.settings(), 0x80, sizeof(TRAN_LOGF_QUE_INFO));
    std::memset(daemon.segment(), 0xff, sizeof(TRAN_AGT_SHM));
    daemon.noti_que()->info = {INT_MIN, INT_MAX};
    EXPECT_EQ(look(1)["reasons"].size(), 6u);
    EXPECT_EQ(look(1, {"--services"})["services"].size(), 1u);
    daemon.segment()->proc_num = PROCESS_INFO_MAX;
    std::memset(&traces.h_arr[9], 0xff, sizeof traces.h_arr[9]);
    traces.h_arr[9].param.lasted_access = LONG_MIN;
    traces.used = {2, {9, UINT_MAX}};
    EXPECT_EQ(look(1)["processes"].size(), 68u);
    expect_problem("the trace table is corrupt: the used slots include number 4294967295");
    EXPECT_EQ(console({"metrics"}).status, 0);
}

TEST_F(Status, TellsThatThereIsNoAgent) {
    EXPECT_EQ(console({"status"}).status + console({"metrics"}).status, 4); // nor a configuration
    daemon.write_cfg();
    expect_problem("absent: no daemon runs and none of the shared objects exists", 2);
    EXPECT_TRUE(in_order(daemon.run({"metrics"}), {"0\n", "\nkessard_up 0\n"}));
    start();
    EXPECT_TRUE(in_order(daemon.run({"metrics"}), {"0\n", "\nkessard_up 1\n"}));
    daemon.signal(SIGKILL);
    daemon.wait_exit();
    expect_problem("absent: no daemon runs; 11 shared objects are there without it", 2);
}

// Every sample belongs to the family announced last, and nothing comes twice.
void expect_exposition(const std::string& text) {
    const std::regex help("# HELP ([a-z_]+) .+");
    const std::regex sample(R"re((([a-z_]+)(\{([a-z]+="([^"\\]|\\["\\n])*",?)+\})?) [-+.e0-9]+)re");
    std::set<std::string> seen;
    std::istringstream lines(text);
    std::smatch found;
    for (std::string line, family; std::getline(lines, line);) {
        if (std::regex_match(line, found, help)) {
            family = found.str(1);
            const std::string type = family.ends_with("_total") ? " counter" : " gauge";
            EXPECT_TRUE(std::getline(lines, line) && seen.insert(family + " help").second);
            EXPECT_EQ(line, "# TYPE " + family + type);
        } else {
            const bool of_family = std::regex_match(line, found, sample) && found.str(2) == family;
            EXPECT_TRUE(of_family && seen.insert(found.str(1)).second) << line;
        }
    }
}

TEST_F(Status, MetricsAreReplacedInOneStep) {
    daemon.set("COMMON", "STATE_FILE", "state");
    start();
    ASSERT_EQ(console({"put-trace", "--name", "a\"b\\c"}).status, 0);
    const std::string file = daemon.path("of.prom");
    daemon.write_file("of.prom", "old\n", 0600);
    ASSERT_EQ(link(file.c_str(), daemon.path("old").c_str()), 0); // a reader has it open
    ASSERT_EQ(console({"metrics", "--output", file}).status, 0);
    EXPECT_EQ(content(daemon.path("old")), "old\n");
    expect_exposition(content(file));
    EXPECT_TRUE(in_order(content(file),
                         {"\nkessard_trace_entries{program=\"a\\\"b\\\\c\",state=\"a\"} 1\n"}));
    const texts find = {"/usr/bin/find", daemon.home(), "-name", "of.*", "-printf", "%f %m"};
    EXPECT_EQ(run_program(find).out, "of.prom 644");
    EXPECT_EQ(console({"metrics", "--output", daemon.path("nowhere/x")}).status, 2);
}

TEST_F(Status, WatchesUntilItIsInterrupted) {
    start();
    process watcher({KESSCTL_PROGRAM, "status", "--watch", "0.1"}, daemon.variables);
    const texts twice(2, "every 0.1 s");
    EXPECT_TRUE(wait_until([&] { return in_order(watcher.out(), twice); }));
    kill(watcher.pid(), SIGINT);
    EXPECT_EQ(watcher.wait_exit(), 0);
}

TEST_F(Status, GivesItsTerminalBack) {
    start();
    add_process("ev\x1b[2Jil", daemon.pid(), 1, 1);
    const std::string line = "TERM=xterm exec " KESSCTL_PROGRAM " status --watch 0.1 --cfg ";
    int terminal = -1;
    const pid_t watcher = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (watcher == 0)
        execl("/bin/sh", "sh", "-c", (line + daemon.cfg_file()).c_str(), nullptr);
    const auto press = [&](const std::string& keys, const std::string& wanted) {
        std::string drawn;
        EXPECT_EQ(write(terminal, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
        EXPECT_TRUE(wait_until([&] {
            for (char c; agt::wait_fd(terminal, POLLIN, 5) == agt::wait_result::ready &&
                         read(terminal, &c, 1) == 1;)
                drawn += c;
            return drawn.find(wanted) != drawn.npos;
        })) << drawn;
    };
    press("", "ev\\x1b[2Jil");
    press("fq\x1b[Anobody\r", "only 'qnobody'");
    press("p", "PAUSED");
    press("q", "\x1b[?1049l");
    termios mode{};
    EXPECT_TRUE(tcgetattr(terminal, &mode) == 0 && (mode.c_lflag & ECHO) != 0);
    close(terminal);
    EXPECT_TRUE(wait_until([&] { return waitpid(watcher, nullptr, WNOHANG) == watcher; }));
}

} // namespace
