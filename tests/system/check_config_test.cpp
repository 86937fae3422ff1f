// kessctl check-config, doctor and clean, with the real daemon as the judge of what they say.
#include "checks.h"
#include "config_keys.h"

namespace {

using namespace test_support;

const std::string KEYS_CHECKED = ": " + std::to_string(agt::CONFIG_KEYS.size()) + " keys checked, ";

class Console : public testing::Test {
  protected:
    agent daemon;

    // Runs kessctl: its exit status, then what it shows.
    std::string run(const texts& arguments) const {
        const program_result shown = daemon.console(arguments);
        return std::to_string(shown.status) + "\n" + shown.out + shown.err;
    }
    void put_before(const std::string& start, const std::string& lines) {
        std::string text = (std::ostringstream() << std::ifstream(daemon.cfg_file()).rdbuf()).str();
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
    static void expect_in(const std::string& wanted, const std::string& shown) {
        EXPECT_NE(shown.find(wanted), std::string::npos) << "no '" << wanted << "' in\n" << shown;
    }
};

struct bad_value {
    const char *section, *keyword, *value, *what;
};

const bad_value BAD_VALUES[] = {
    {"TRAN_SERVER", "CMD_PORT", "77x",
     "'77x' is not a number; the daemon reads 77, allowed: a number from 1 to 65535"},
    {"TRAN_SERVER", "IP_ADDRESS", "10.0.0.256",
     "'10.0.0.256' is no dotted IPv4 address, allowed: a host name or"},
    {"TRAN_AGENT", "IP_ADDRESS", "192.0.2.1", "192.0.2.1 is no address of this host, allowed: "},
    {"TRAN_AGENT", "ALLOWED_ADDRESSES", "127.0.0.1 10.0.0.0/33",
     "'10.0.0.0/33' is no address and no block"},
    {"TRAN_AGENT", "REMOTE_COMMANDS_YN", "n", "'n' is neither Y nor N, allowed: Y or N"},
    {"TRAN_LOGF", "LOG_INTERFACE", "012",
     "'012' is too long; the daemon keeps '01', allowed: 2 characters"},
    {"TRAN_LOGF", "QUE_CNT", "3", "'3' is none of its values, allowed: 1, 2, 4, 8 or 16"},
    {"SERVICE_HASH", "DAILY_UPDATE_HHMI", "2460", "'2460' is no time of day, allowed: HHMM from"},
    {"COMMON", "LOG_HOME", "elsewhere",
     "elsewhere/proc/kessard: No such file or directory, allowed: a directory"},
    {"KESSARD", "WORKER_REST_INTERVAL", "59",
     "59 is out of range, allowed: a number from 60 to 2147483647 s"},
    {"KESSARD", "WORKER_MODE", "Thread",
     "'Thread' is none of its values, allowed: PROCESS, THREAD, process or"},
    {"KESSARD", "SKIP_PROC", "a,,b",
     "an empty name ends the list in front of 'b', allowed: up to 20 names"},
    {"IPC_SEMAPHORE", "SVC_HASH_TBL_SEMKEY", "0",
     "0 is out of range, allowed: a number from 1 to 4294967295 that no"},
    {"CHECK_API_STAT", "ACT", "N 60 -",
     "missing: the value has no word 4, the daemon does not start without it"},
};

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
        expect_in(at(std::string(bad.keyword) + " = " + bad.value, "error: ") + bad.section + "/" +
                      bad.keyword + ": " +
                      (std::string(bad.value) == "elsewhere" ? daemon.home() + "/" : "") + bad.what,
                  shown);
    expect_in(at("DAILY_UPDATE_SCRIPT", "error: SERVICE_HASH/DAILY_UPDATE_SCRIPT: "), shown);
    expect_in(at("TRAN_AGT_SHMKEY", "error: IPC_SHARED_MEMORY/TRAN_AGT_SHMKEY: "), shown);
    expect_in(at("SVC_UPDATE_CHK_FILE", "warning: CHECK_FILES/SVC_UPDATE_CHK_FILE: "), shown);
    expect_in(
        at("[SERVICE_HASH]", "error: SERVICE_HASH/DEFAULT_TIMEOUT_SEC: missing in this section"),
        shown);
    expect_in(at("NOTI_SEND_QUE_SHMKEY", "warning: IPC_SHARED_MEMORY/NOTI_SEND_QUE_SHMKEY: an obj"),
              shown);
    expect_in(KEYS_CHECKED + "errors: 17, warnings: 2\n", shown); // and nothing else
    expect_in("\"errors\": 17,", run({"check-config", "--json", daemon.cfg_file()}));
    EXPECT_EQ(run({"check-config", daemon.home()}),
              "2\nkessctl: " + daemon.home() + ": not a regular file\n");
}

TEST_F(Console, SaysWhatTheReaderPassesOver) {
    daemon.unset("PTRC_HASH", "TRC_STS_CHECK_PERIOD");
    daemon.write_cfg();
    put_before("[COMMON]", "# " + std::string(300, '-') + "\n[XXXXXX] COMMON\n");
    put_before("[SERVICE_HASH]", "[PTRC_HASH]\n  TRC_STS_CHECK_PERIOD= 5\n");
    put_before("[TRAN_SERVER]", "[TRAN_LOGF]\nTR_SECTION = x\n");
    put_before("WORKER_MODE", "WORKER_MODE = PROCESS now\n");
    const std::string shown = run({"check-config", daemon.cfg_file()});
    expect_in(at("# -", "warning: line: longer than 255 characters"), shown);
    expect_in(at("[XXXXXX]", "warning: [COMMON]: this line counts as its header"), shown);
    expect_in(at("[XXXXXX]", "error: COMMON/LOG_HOME: missing in this section"), shown);
    expect_in(at("[COMMON]", "error: [COMMON]: not read: line "), shown);
    expect_in(at("  TRC_STS", "error: PTRC_HASH/TRC_STS_CHECK_PERIOD: missing: a blank must stand"),
              shown);
    expect_in(at("[TRAN_LOGF]", "warning: [TRAN_LOGF]: not read: line ", 2), shown);
    expect_in(at("WORKER_MODE", "warning: KESSARD/WORKER_MODE: 'now' is not read"), shown);
    expect_in(at("WORKER_MODE", "warning: KESSARD/WORKER_MODE: not read: the value of line ", 2),
              shown);
    const auto lost = std::count_if(
        agt::CONFIG_KEYS.begin(), agt::CONFIG_KEYS.end(), [](const agt::config_key& key) {
            return key.section == std::string("COMMON") && !key.may_be_absent();
        });
    expect_in("errors: " + std::to_string(2 + lost) + ", warnings: 5\n", shown);
    daemon.write_file("agt.cfg", "");
    expect_in("agt.cfg:1: error: COMMON/LOG_HOME: missing: there is no section [COMMON]",
              run({"check-config"}));
}

TEST_F(Console, CallsFineWhatTheDaemonStartsWith) {
    std::filesystem::create_directory(daemon.path("run"));
    expect_in(KEYS_CHECKED + "errors: 0, ",
              run({"check-config", SOURCE_TREE "agt/conf/agt.cfg"})); // its port may be in use
    daemon.write_cfg();
    const std::string clean = daemon.cfg_file() + KEYS_CHECKED + "errors: 0, warnings: 0\n";
    EXPECT_EQ(run({"check-config", "--strict"}), "0\n" + clean);
    start_running(daemon);
    const std::string port = "TRAN_AGENT/CMD_PORT: port " + std::to_string(daemon.port());
    const std::string holder = std::to_string(daemon.pid()) + " (kessard)";
    const std::string running = run({"check-config", "--strict"});
    expect_in("note: " + port + " is held by the running agent of this configuration, " + holder +
                  "\n" + clean,
              running);
    EXPECT_TRUE(running.starts_with("0\n"));
    agent other;
    other.set("TRAN_AGENT", "CMD_PORT", daemon.port());
    other.write_cfg();
    const std::string taken = run({"check-config", "--strict", other.cfg_file()});
    expect_in("warning: " + port + " is in use by " + holder +
                  "; an agent with another configuration may be",
              taken);
    EXPECT_TRUE(taken.starts_with("1\n"));
}

TEST_F(Console, DoctorFindsWhatADeadDaemonLeftAndCleanRemovesIt) {
    start_running(daemon);
    ASSERT_TRUE(daemon.wait_log("=== [CHECK_WORKER]")); // the last of the objects is there
    EXPECT_EQ(run({"doctor"}), "0\nfindings: 0\n");
    expect_in("kessctl: nothing removed: the daemon runs: " + std::to_string(daemon.pid()) +
                  " (kessard)\n",
              run({"clean", "--yes"}));
    daemon.signal(SIGSTOP);
    expect_in("does not answer, port ", run({"doctor"}));
    daemon.signal(SIGKILL);
    EXPECT_EQ(daemon.wait_exit(), 128 + SIGKILL);

    const pid_t holder = fork();
    if (holder == 0) {
        sembuf take = {0, -1, 0}; // without undo
        _exit(semop(daemon.sem_id("PTRC_HASH_TBL_SEMKEY"), &take, 1));
    }
    waitpid(holder, nullptr, 0);
    const void* attached =
        shmat(shmget(daemon.shm_key("TRAN_AGT_SHMKEY"), 0, 0), nullptr, SHM_RDONLY);
    const std::string ill = run({"doctor", "--config", daemon.cfg_file()});
    EXPECT_TRUE(ill.starts_with("1\nno daemon runs; 13 shared objects are there without it\n"))
        << ill;
    expect_in("PTRC_HASH_TBL_SEMKEY[0] (trace table) is held by the dead process " +
                  std::to_string(holder) + "; nobody gives it back",
              ill);
    expect_in(" (agent segment): attached 1 times without a daemon: " + std::to_string(getpid()),
              ill);
    expect_in(
        "stale: left by a daemon that has ended: TRAN_LOGF_QUE_INFO_SHMKEY NOTI_SEND_QUE_SHMKEY ",
        ill);
    expect_in("\nfindings: 4\n", ill);
    expect_in("nothing removed: TRAN_AGT_SHMKEY: processes are attached to it\n",
              run({"clean", "--yes"}));
    shmdt(attached);
    expect_in("kessctl: nothing removed: no terminal to ask on, give --yes\n", run({"clean"}));
    EXPECT_GE(daemon.sem_id("PARSE_LOG_QUE_SEMKEY"), 0);
    expect_in("\n13 of 13 objects removed\n", run({"clean", "--yes"}));
    EXPECT_LT(shmget(daemon.shm_key("TRAN_LOGF_QUE_INFO_SHMKEY"), 0, 0), 0);
    EXPECT_LT(daemon.sem_id("PARSE_LOG_QUE_SEMKEY"), 0);
    EXPECT_EQ(run({"clean"}), "0\n0 of 0 objects removed\n");
}

TEST_F(Console, DoctorNamesWhatIsWrongWithARunningAgent) {
    start_running(daemon, {"-p", "1", "-c", "1"});
    ASSERT_TRUE(daemon.wait_log("=== [CHECK_WORKER]") &&
                daemon.wait_log("clients 0/5 , total_logs 0, curr_logs 0"));
    ASSERT_EQ(semctl(daemon.sem_id("SVC_HASH_TBL_SEMKEY"), 0, SETVAL, 2), 0);
    sembuf take = {0, -1, SEM_UNDO};
    ASSERT_EQ(semop(daemon.sem_id("JCACHE_HASH_TBL_SEMKEY"), &take, 1), 0);
    shmctl(shmget(daemon.shm_key("NOTI_SEND_QUE_SHMKEY"), 0, 0), IPC_RMID, nullptr);
    shmctl(shmget(daemon.shm_key("TRAN_AGT_SHMKEY"), 0, 0), IPC_RMID, nullptr);
    daemon.create_shm("TRAN_AGT_SHMKEY", 10); // removed with the agent's other objects
    std::filesystem::remove_all(daemon.path("logs/proc"));
    const std::string ill = run({"doctor"});
    expect_in(
        "SVC_HASH_TBL_SEMKEY[0] (service table) has the value 2, so several processes can hold it",
        ill);
    expect_in("JCACHE_HASH_TBL_SEMKEY[0] (cache table) is held by process " +
                  std::to_string(getpid()) + " (",
              ill);
    expect_in("NOTI_SEND_QUE_SHMKEY (notification queue): missing while the daemon runs, key ",
              ill);
    expect_in("TRAN_AGT_SHMKEY (agent segment): too small, 10 instead of ", ill);
    expect_in("uses another segment than the one of key ", ill);
    expect_in("log: " + daemon.path("logs/proc/kessard") + ": No such file or directory", ill);
    expect_in("\nfindings: 7\n", ill);
    take.sem_op = 1;
    EXPECT_EQ(semop(daemon.sem_id("JCACHE_HASH_TBL_SEMKEY"), &take, 1), 0);
}

} // namespace
