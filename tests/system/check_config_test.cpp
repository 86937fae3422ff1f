// kessctl check-config, doctor and clean, with the real daemon as the judge of what they say.
#include <sys/prctl.h>

#include "checks.h"
#include "config_keys.h"
#include "ext_peer.h"
#include "sem.h"

namespace {

using namespace std::string_literals;
using namespace test_support;

const std::string KEYS_CHECKED = ": " + std::to_string(agt::CONFIG_KEYS.size()) + " keys checked, ";

class Console : public testing::Test {
  protected:
    agent daemon;

    std::string run(const texts& words) const { return daemon.run(words); }
    void put_before(const std::string& start, const std::string& lines) {
        std::string text = content(daemon.cfg_file());
        daemon.write_file("agt.cfg", text.insert(text.find("\n" + start) + 1, lines));
    }
    // "FILE:LINE: what", where LINE is that of the n-th line which starts like that.
    std::string at(const std::string& start, const std::string& what, int nth = 1) const {
        std::ifstream lines(daemon.cfg_file());
        int number = 0;
        for (std::string line; nth > 0 && std::getline(lines, line); ++number)
            nth -= line.starts_with(start) ? 1 : 0;
        EXPECT_EQ(nth, 0) << start;
        return daemon.cfg_file() + ":" + std::to_string(number) + ": " + what;
    }
    static void expect_in(const std::string& shown, const texts& all) {
        for (const std::string& wanted : all)
            EXPECT_TRUE(in_order(shown, {wanted})) << "in\n" << shown;
    }
};

struct bad_value {
    const char *section, *keyword, *value, *what;
};

const bad_value BAD_VALUES[] = {
    {"TRAN_SERVER", "CMD_PORT", "77x", "'77x' is not a number; the daemon reads 77, allowed: a n"},
    {"TRAN_SERVER", "IP_ADDRESS", "10.0.0.256", "'10.0.0.256' is no dotted IPv4 address, allowed"},
    {"TRAN_AGENT", "IP_ADDRESS", "192.0.2.1", "192.0.2.1 is no address of this host, allowed: "},
    {"TRAN_AGENT", "ALLOWED_ADDRESSES", "127.0.0.1 1.0.0.0/33", "'1.0.0.0/33' is no address and n"},
    {"TRAN_AGENT", "REMOTE_COMMANDS_YN", "n", "'n' is neither Y nor N; the daemon does"},
    {"TRAN_LOGF", "LOG_INTERFACE", "012", "'012' is too long; the daemon keeps '01', allowed: 2 c"},
    {"TRAN_LOGF", "QUE_CNT", "3", "'3' is none of its values, allowed: 1, 2, 4, 8 or 16"},
    {"SERVICE_HASH", "DAILY_UPDATE_HHMI", "2460", "'2460' is no time of day, allowed: HHMM from"},
    {"COMMON", "LOG_HOME", "elsewhere", "elsewhere/proc/kessard: No such file or directory, al"},
    {"KESSARD", "WORKER_REST_INTERVAL", "59", "59 is out of range, allowed: a number from 60 to"},
    {"KESSARD", "WORKER_MODE", "Thread", "'Thread' is none of its values, allowed: PROCESS, THR"},
    {"KESSARD", "SKIP_PROC", "a,,b", "an empty name ends the list in front of 'b', allowed: up to"},
    {"IPC_SEMAPHORE", "SVC_HASH_TBL_SEMKEY", "0", "0 is out of range, allowed: a number from 1 "},
    {"CHECK_API_STAT", "ACT", "N 60 -", "missing: the value has no word 4, the daemon does not "}};

TEST_F(Console, NamesEveryBadValueWithItsLine) {
    for (const bad_value& bad : BAD_VALUES)
        daemon.set(bad.section, bad.keyword, bad.value);
    daemon.set("SERVICE_HASH", "DAILY_UPDATE_YN", "Y"); // and there is no script
    daemon.set("IPC_SHARED_MEMORY", "TRAN_AGT_SHMKEY", daemon.shm_key("SVC_HASH_TBL_SHMKEY"));
    daemon.set("CHECK_FILES", "SVC_UPDATE_CHK_FILE", "no/such/file");
    daemon.unset("SERVICE_HASH", "DEFAULT_TIMEOUT_SEC");
    ASSERT_NE(daemon.create_shm("NOTI_SEND_QUE_SHMKEY", 100), nullptr);
    daemon.write_cfg();
    const std::string shown = run({"check-config"});
    EXPECT_TRUE(shown.starts_with("1\n"));
    for (const bad_value& bad : BAD_VALUES) // paths are shown whole
        expect_in(shown, {at(std::string(bad.keyword) + " = " + bad.value, "error: ") +
                          bad.section + "/" + bad.keyword + ": " +
                          (bad.value == "elsewhere"s ? daemon.home() + "/" : "") + bad.what});
    expect_in(shown,
              {at("DAILY_UPDATE_SCRIPT", "error: SERVICE_HASH/DAILY_UPDATE_SCRIPT: "),
               at("TRAN_AGT_SHMKEY", "error: IPC_SHARED_MEMORY/TRAN_AGT_SHMKEY: "),
               at("SVC_UPDATE_CHK_FILE", "warning: CHECK_FILES/SVC_UPDATE_CHK_FILE: "),
               at("[SERVICE_HASH]", "error: SERVICE_HASH/DEFAULT_TIMEOUT_SEC: missing in this sec"),
               at("NOTI_SEND_QUE_SHMKEY", "warning: IPC_SHARED_MEMORY/NOTI_SEND_QUE_SHMKEY: an ob"),
               KEYS_CHECKED + "errors: 17, warnings: 2\n"}); // and nothing else
    expect_in(run({"check-config", "--json", daemon.cfg_file()}), {"\"errors\": 17,"});
    EXPECT_EQ(run({"check-config", daemon.home()}),
              "2\nkessctl: " + daemon.home() + ": not a regular file\n");
}

TEST_F(Console, SaysWhatTheReaderPassesOver) {
    daemon.unset("PTRC_HASH", "TRC_STS_CHECK_PERIOD");
    daemon.set("TRAN_SERVER", "CMD_PORT", daemon.port());
    daemon.set("TRAN_SERVER", "IP_ADDRESS", "localhost");
    daemon.write_cfg();
    put_before("[TRAN_SERVER]", "QUE_CMT = 1\nCMD_PORT = 1\nOTHER = 1\nREST\n[OTHER]\n[KESARD]\n");
    put_before("[COMMON]", "# " + std::string(300, '-') + "\n[XXXXXX] COMMON\n");
    put_before("[SERVICE_HASH]", "  TRC_STS_CHECK_PERIOD= 5\n");
    put_before("[TRAN_SERVER]", "[TRAN_LOGF]\nTR_SECTION = x\n");
    put_before("WORKER_MODE", "WORKER_MODE = PROCESS now\n");
    const std::string shown = run({"check-config", daemon.cfg_file()});
    const std::string key = "KESSARD/WORKER_MODE: ";
    const auto lost = std::count_if(agt::CONFIG_KEYS.begin(), agt::CONFIG_KEYS.end(),
                                    [](const agt::config_key& one) {
                                        return one.section == "COMMON"s && !one.may_be_absent();
                                    });
    expect_in(shown,
              {at("# -", "warning: line: longer than 255 characters"),
               at("[XXXXXX]", "warning: [COMMON]: this line counts as its header"),
               at("[XXXXXX]", "error: COMMON/LOG_HOME: missing in this section"),
               at("[COMMON]", "error: [COMMON]: not read: line "),
               at("  TRC_STS", "error: PTRC_HASH/TRC_STS_CHECK_PERIOD: missing: a blank must st"),
               at("[TRAN_LOGF]", "error: [TRAN_LOGF]: not read: line ", 2),
               at("WORKER_MODE", "warning: " + key + "'now' is not read"),
               at("WORKER_MODE", "warning: " + key + "not read: the value of line ", 2),
               at("CMD_PORT", "error: TRAN_SERVER/CMD_PORT: the agent takes its own commands", 3),
               at("QUE_CMT", "error: TRAN_LOGF/QUE_CMT: not read, nearest is QUE_CNT"),
               at("CMD_PORT", "error: TRAN_LOGF/CMD_PORT: not read, belongs into [TRAN_AGENT]", 2),
               at("OTHER", "warning: TRAN_LOGF/OTHER: unknown to the daemon"),
               at("REST", "error: TRAN_LOGF/REST: has no '='"),
               at("[OTHER]", "warning: [OTHER]: unknown to the daemon"),
               at("[KESARD]", "error: [KESARD]: not read, nearest is [KESSARD]"),
               "errors: " + std::to_string(8 + lost) + ", warnings: 6\n"});
    daemon.write_file("agt.cfg", "");
    expect_in(run({"check-config"}),
              {":1: error: COMMON/LOG_HOME: missing: there is no section [C"});
}

TEST_F(Console, CallsFineWhatTheDaemonStartsWith) {
    std::filesystem::create_directory(daemon.path("run"));
    expect_in(run({"check-config", SOURCE_TREE "agt/conf/agt.cfg"}), // its port may be in use
              {KEYS_CHECKED + "errors: 0, "});
    daemon.set("TRAN_AGENT", "#REMOTE_COMMANDS_YN", "N"); // a remark
    daemon.write_cfg();
    const std::string clean = daemon.cfg_file() + KEYS_CHECKED + "errors: 0, warnings: 0\n";
    EXPECT_EQ(run({"check-config", "--strict"}), "0\n" + clean);
    start_running(daemon);
    const std::string port = "TRAN_AGENT/CMD_PORT: port " + std::to_string(daemon.port());
    const std::string holder = std::to_string(daemon.pid()) + " (kessard)";
    const std::string held = " is held by the running agent of this configuration, " + holder;
    EXPECT_TRUE(in_order(run({"check-config", "--strict"}),
                         {"0\n", "note: " + port + held + "\n" + clean}));
    agent other;
    other.set("TRAN_AGENT", "CMD_PORT", daemon.port());
    other.write_cfg();
    EXPECT_TRUE(in_order(run({"check-config", "--strict", other.cfg_file()}),
                         {"1\n", "warning: " + port + " is in use by " + holder,
                          "; an agent with another configuration may be"}));
}

TEST_F(Console, DoctorFindsWhatADeadDaemonLeftAndCleanRemovesIt) {
    start_running(daemon);
    ASSERT_TRUE(daemon.wait_log("=== [CHECK_WORKER]")); // the last of the objects is there
    EXPECT_EQ(run({"doctor"}), "0\nfindings: 0\n");
    const std::string pid = std::to_string(daemon.pid());
    expect_in(run({"clean", "--yes"}),
              {"nothing removed: the daemon runs: " + pid + " (kessard)\n"});
    daemon.signal(SIGSTOP);
    expect_in(run({"doctor"}), {"does not answer, port "});
    daemon.signal(SIGKILL);
    EXPECT_EQ(daemon.wait_exit(), 128 + SIGKILL);

    const pid_t holder = fork();
    if (holder == 0) // ends with it: without undo
        _exit(agt::sem_lock(daemon.sem_id("PTRC_HASH_TBL_SEMKEY"), 0, 0));
    waitpid(holder, nullptr, 0);
    const void* attached = shmat(daemon.shm_id("TRAN_AGT_SHMKEY"), nullptr, SHM_RDONLY);
    const std::string ill = run({"doctor", "--config", daemon.cfg_file()});
    EXPECT_TRUE(ill.starts_with("1\nno daemon runs; 13 shared objects are there without it\n"))
        << ill;
    expect_in(ill,
              {"PTRC_HASH_TBL_SEMKEY[0] (trace table) is held by the dead process " +
                   std::to_string(holder) + "; nobody gives it back",
               " (agent segment): attached 1 times without a daemon: " + std::to_string(getpid()),
               "stale: left by a daemon that has ended: TRAN_LOGF_QUE_INFO_SHMKEY NOTI_SEND_",
               "\nfindings: 4\n"});
    expect_in(run({"clean", "--yes"}), {"TRAN_AGT_SHMKEY: processes are attached to it\n"});
    shmdt(attached);
    expect_in(run({"clean"}), {"kessctl: nothing removed: no terminal to ask on, give --yes\n"});
    EXPECT_GE(daemon.sem_id("PARSE_LOG_QUE_SEMKEY"), 0);
    expect_in(run({"clean", "--yes"}), {"\n13 of 13 objects removed\n"});
    EXPECT_LT(daemon.shm_id("TRAN_LOGF_QUE_INFO_SHMKEY"), 0);
    EXPECT_LT(daemon.sem_id("PARSE_LOG_QUE_SEMKEY"), 0);
    EXPECT_EQ(run({"clean"}), "0\n0 of 0 objects removed\n");
}

TEST_F(Console, TellsTheDaemonFromWhatHasItsName) {
    start_running(daemon);
    const void* attached = shmat(daemon.shm_id("TRAN_AGT_SHMKEY"), nullptr, SHM_RDONLY);
    const pid_t other = fork();
    if (other == 0) {
        prctl(PR_SET_NAME, "kessard");
        pause();
    }
    const std::string name =
        std::to_string(other) + " (kessard) is another program under that name";
    const std::string pid = "kessard pid " + std::to_string(daemon.pid());
    const ext_peer peer(daemon, "0001Rsleep 20");
    EXPECT_TRUE(wait_until([&] { return children(daemon.pid()).size() == 1; }));
    const std::string child = children(daemon.pid()).front();
    EXPECT_TRUE(wait_until([&] { return in_order(run({"status"}), {"1\n", pid, "! " + name}); }));
    daemon.signal(SIGKILL);
    EXPECT_EQ(daemon.wait_exit(), 128 + SIGKILL);
    const std::string left = child + " (kessard) does not listen on the command port: a child";
    EXPECT_TRUE(run({"status"}).starts_with("2\n"));
    expect_in(run({"status"}), {"no daemon runs", left, name});
    expect_in(run({"metrics"}), {"\nkessard_up 0\n"});
    expect_in(run({"clean", "--yes"}),
              {"nothing removed: no daemon runs, but ", child + " (kessard) does not"});
    kill(other, SIGKILL);
    waitpid(other, nullptr, 0);
    shmdt(attached);
}

TEST_F(Console, DoctorNamesWhatIsWrongWithARunningAgent) {
    start_running(daemon, {"-p", "1", "-c", "1"});
    ASSERT_TRUE(daemon.wait_log("=== [CHECK_WORKER]"));
    ASSERT_TRUE(daemon.wait_log("clients 0/5 , total_logs 0, curr_logs 0"));
    ASSERT_EQ(semctl(daemon.sem_id("SVC_HASH_TBL_SEMKEY"), 0, SETVAL, 2), 0);
    const agt::sem_hold hold(daemon.sem_id("JCACHE_HASH_TBL_SEMKEY"), 0);
    for (const char* gone : {"NOTI_SEND_QUE_SHMKEY", "TRAN_AGT_SHMKEY"})
        shmctl(daemon.shm_id(gone), IPC_RMID, nullptr);
    daemon.create_shm("TRAN_AGT_SHMKEY", 10); // removed with the agent's other objects
    std::filesystem::remove_all(daemon.path("logs/proc"));
    expect_in(
        run({"doctor"}),
        {"SVC_HASH_TBL_SEMKEY[0] (service table) has the value 2, so several processes can",
         "JCACHE_HASH_TBL_SEMKEY[0] (cache table) is held by process " + std::to_string(getpid()),
         "NOTI_SEND_QUE_SHMKEY (notification queue): missing while the daemon runs, key ",
         "TRAN_AGT_SHMKEY (agent segment): too small, 10 instead of ",
         "uses another segment than the one of key ",
         "log: " + daemon.path("logs/proc/kessard") + ": No such file or directory",
         "\nfindings: 7\n"});
}

} // namespace
