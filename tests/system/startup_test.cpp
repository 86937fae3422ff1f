// Start-up through the real program: its log, what stops it, its objects, the background mode.
#include "served_agent.h"

namespace {

using namespace test_support;

class Startup : public testing::Test {
  protected:
    agent daemon;

    // A line of the log about an object, with its key.
    static std::string keyed(const std::string& text, key_t key) {
        return text + (std::ostringstream() << ".[key:0x" << std::hex << key << "]").str();
    }
    std::string shm(const std::string& text, const std::string& name) const {
        return keyed(text, daemon.shm_key(name + "_SHMKEY"));
    }
    std::string sem(const std::string& text, const std::string& name) const {
        return keyed(text + " semaphore create complete", daemon.sem_key(name + "_SEMKEY"));
    }
    // The log of a start without a server, up to the threads; `how` is "create" or "open".
    texts start_lines(const std::string& how) const {
        const std::string port = std::to_string(daemon.port());
        const std::string server_port = std::to_string(daemon.server_port());
        const std::string done = " " + how + " complete";
        texts lines = {
            "(I) agt_cmd_port [" + port + ":" + port + "]",
            "(I) Active Service Detail Monitoring OFF.(0ms)",
            ">> Update DAILY_UPDATE_HHMI(4DIGIT) : ----",
            ">> Update DAILY_UPDATE_SCRIPT : " + daemon.path("services.sh"),
            "svc_update_chk_fn = " + daemon.path("svc_update"),
            "trc_sts_check_period = 10",
            "api_stat_out_fn = " + daemon.path("svc_update"),
            "(i) config-file(" + daemon.cfg_file() + ") read complete. TCP_CMD_MSG size 1407 bytes",
            shm("(i) tran_logf_que_info" + done, "TRAN_LOGF_QUE_INFO"),
            shm("(i) noti_send_que" + done, "NOTI_SEND_QUE"),
            sem("(i) noti_send_que", "NOTI_SEND_QUE"),
            sem("(i) svc_hash_tbl", "SVC_HASH_TBL"),
            shm("(i) svc_hash_tbl" + done, "SVC_HASH_TBL"),
            "(i) get service list thread is starting..",
            "<!> server connection fail. (ip 127.0.0.1, port " + server_port + ") ",
            THREAD_END,
            sem("(i) ptrc_hash_tbl", "PTRC_HASH_TBL"),
            "(i) initializing.. ptrc_hash_tbl.",
            shm("(i) ptrc_hash_tbl" + done, "PTRC_HASH_TBL"),
            sem("(i) jcache_hash_tbl", "JCACHE_HASH_TBL"),
            "(i) initializing.. jcache_hash_tbl.",
            shm("(i) jcache_hash_tbl" + done, "JCACHE_HASH_TBL"),
            sem("(i) tran agent", "TRAN_AGT"),
            shm("(i) tran_agt_shm" + done, "TRAN_AGT"),
        };
        const auto initializes = [](const auto& line) { return line.find("init") == 4; };
        if (how == "open")
            std::erase_if(lines, initializes);
        return lines;
    }
    // As many lines of the log, without one that may or may not be there.
    texts logged(const texts& wanted) const {
        texts lines = messages(daemon.log());
        std::erase(lines, "(I) completed join get_service_list.");
        lines.resize(wanted.size());
        return lines;
    }
    // Starts the program, which is to stop by itself; the last line of its log.
    std::string last_line_of_a_failed_start() {
        daemon.mark_log();
        daemon.start();
        EXPECT_EQ(daemon.wait_exit(), 1);
        const texts lines = messages(daemon.log());
        return lines.empty() ? "" : lines.back();
    }
};

TEST_F(Startup, LogsItsStepsInOrderOnNewAndOnExistingObjects) {
    start_running(daemon);
    EXPECT_EQ(logged(start_lines("create")), start_lines("create"));
    EXPECT_TRUE(daemon.wait_log("(i) statics log print start... running : 1"));
    EXPECT_TRUE(daemon.wait_log("(i) notify_active_service_detail thread start... running : 1"));
    const std::string got = "ok, get environment-variable (TRAN_AGT_";
    const std::string home = got + "HOME : " + daemon.home() + ")\n";
    EXPECT_EQ(daemon.out(), home + got + "CFG_FILE : " + daemon.cfg_file() + ")\n");
    EXPECT_EQ(daemon.err(), "");
    EXPECT_EQ(daemon.stop(), 0);

    // None of it is touched, the queue count neither.
    std::memset(daemon.settings(), 0x33, sizeof(TRAN_LOGF_QUE_INFO));
    daemon.segment()->proc_num = daemon.services()->h_idx[5] = daemon.noti_que()->info.rear = 7;
    daemon.traces()->used.top = daemon.cache()->used.top = daemon.noti_que()->info.front = 7;
    daemon.traces()->available.top -= 7;
    daemon.cache()->available.top -= 7;
    daemon.set("TRAN_LOGF", "QUE_CNT", 2);
    daemon.mark_log();
    start_running(daemon);
    EXPECT_EQ(logged(start_lines("open")), start_lines("open"));
    EXPECT_EQ(bytes_of(*daemon.settings()), std::string(sizeof(TRAN_LOGF_QUE_INFO), 0x33));
    for (const int kept :
         {daemon.segment()->proc_num, daemon.services()->h_idx[5], daemon.noti_que()->info.rear,
          static_cast<int>(daemon.traces()->used.top), static_cast<int>(daemon.cache()->used.top)})
        EXPECT_EQ(kept, 7);
}

TEST_F(Startup, LeavesNewObjectsInitialised) {
    start_running(daemon);
    const TRAN_LOGF_QUE_INFO settings = {8, 7, 0, 0, {}, 0, 0, 0, 0, 0, 0, 0, {}};
    EXPECT_EQ(bytes_of(*daemon.settings()), bytes_of(settings));
    EXPECT_EQ(table_fault(*daemon.services()), "");
    EXPECT_EQ(daemon.services()->available.idx[9999], 9999u); // the first to be taken
    const auto all_zero = [](const void* at, std::size_t size) {
        const auto* byte = static_cast<const char*>(at);
        return byte[0] == 0 && std::memcmp(byte, byte + 1, size - 1) == 0;
    };
    const auto empty = [&](const auto& table, std::size_t looked_at) { // first and last slots
        const std::size_t slots = std::size(table.h_arr);
        const std::size_t bytes = looked_at * sizeof table.h_arr[0];
        return table.alloc_cnt == 0 && table.used.top == 0 && table.available.top == slots &&
               std::ranges::count(table.h_idx, -1) == std::ssize(table.h_idx) &&
               all_zero(table.h_arr, bytes) && all_zero(&table.h_arr[slots - looked_at], bytes);
    };
    EXPECT_TRUE(empty(*daemon.services(), 10000));
    EXPECT_TRUE(empty(*daemon.traces(), 50) && empty(*daemon.cache(), 50));
    EXPECT_TRUE(all_zero(daemon.segment(), sizeof(TRAN_AGT_SHM)));
    EXPECT_EQ(daemon.noti_que()->info.front + daemon.noti_que()->info.rear, 0);
    for (const std::string name :
         {"SVC_HASH_TBL", "NOTI_SEND_QUE", "PTRC_HASH_TBL", "JCACHE_HASH_TBL", "TRAN_AGT"}) {
        semid_ds set{};
        shmid_ds memory{};
        unsigned short values[16] = {};
        const int semid = daemon.sem_id(name + "_SEMKEY");
        EXPECT_EQ(semctl(semid, 0, IPC_STAT, &set) + semctl(semid, 0, GETALL, values), 0) << name;
        EXPECT_EQ(std::count(values, values + 16, 1), name == "TRAN_AGT" ? 8 : 1) << name;
        EXPECT_EQ(shmctl(daemon.shm_id(name + "_SHMKEY"), IPC_STAT, &memory), 0) << name;
        EXPECT_EQ(set.sem_perm.mode & memory.shm_perm.mode & 0777, 0666) << name;
    }
}

TEST_F(Startup, StopsAtAMissingKey) {
    const texts lines = start_lines("create");
    const std::tuple<std::string, const char*, texts> cases[] = {
        {"", "COMMON", {"LOG_HOME"}},
        {"", "TRAN_AGENT", {"IP_ADDRESS", "CMD_PORT"}},
        {lines[0], "TRAN_SERVER", {"IP_ADDRESS", "CMD_PORT"}},
        {lines[0], "ACTIVE_SERVICE_EVENT", {"ACTIVE_LIMIT"}},
        {lines[1], "IPC_SHARED_MEMORY", {"TRAN_LOGF_QUE_INFO_SHMKEY", "SVC_HASH_TBL_SHMKEY"}},
        {lines[1], "IPC_SHARED_MEMORY", {"NOTI_SEND_QUE_SHMKEY"}},
        {lines[1], "IPC_SEMAPHORE", {"SVC_HASH_TBL_SEMKEY", "NOTI_SEND_QUE_SEMKEY"}},
        {lines[3], "TRAN_LOGF", {"LOG_INTERFACE", "TR_SECTION"}},
        {lines[3], "CHECK_FILES", {"SVC_UPDATE_CHK_FILE"}},
        {lines[4], "PTRC_HASH", {"TRC_STS_CHECK_PERIOD"}},
        {lines[5], "IPC_SHARED_MEMORY", {"PTRC_HASH_TBL_SHMKEY", "JCACHE_HASH_TBL_SHMKEY"}},
        {lines[5], "IPC_SHARED_MEMORY", {"TRAN_AGT_SHMKEY"}},
        {lines[5], "IPC_SEMAPHORE", {"PTRC_HASH_TBL_SEMKEY", "JCACHE_HASH_TBL_SEMKEY"}},
        {lines[5], "IPC_SEMAPHORE", {"TRAN_AGT_SEMKEY"}},
        {lines[5], "SERVICE_HASH", {"DEFAULT_TIMEOUT_SEC"}},
        {lines[5], "CHECK_API_STAT", {"ACT"}},
        {lines[7], "TRAN_LOGF", {"QUE_CNT"}}};
    for (const auto& [last, section, keywords] : cases)
        for (const std::string& keyword : keywords) {
            const std::string value = daemon.value(section, keyword);
            daemon.unset(section, keyword); // the section stays
            EXPECT_EQ(last_line_of_a_failed_start(), last) << keyword;
            EXPECT_TRUE(in_order(daemon.err(), {"not found keyword[" + keyword + "]"}));
            daemon.set(section, keyword, value);
        }
    daemon.set("CHECK_API_STAT", "ACT", "three words only");
    EXPECT_EQ(last_line_of_a_failed_start(), lines[5]);
}

TEST_F(Startup, StopsWithoutItsEnvironmentOrAConfiguration) {
    for (const std::string name : {"TRAN_AGT_HOME", "TRAN_AGT_CFG_FILE"}) {
        const std::string value = daemon.variables[name];
        daemon.variables.erase(name);
        EXPECT_EQ(last_line_of_a_failed_start(), "");
        EXPECT_TRUE(daemon.out().ends_with("please, check environment-variable (" + name + ")\n"));
        daemon.variables[name] = value;
    }
    const std::string brackets(100000, '[');
    daemon.write_file("garbage", brackets + std::string(5000, '\0') + std::string(3000, '='));
    for (const char* name : {"garbage", "missing", "."}) {
        daemon.variables["TRAN_AGT_CFG_FILE"] = daemon.path(name);
        EXPECT_EQ(last_line_of_a_failed_start(), "") << name;
    }
}

TEST_F(Startup, StopsAtAnObjectItCannotHave) {
    for (const std::string name : {"TRAN_LOGF_QUE_INFO", "NOTI_SEND_QUE", "SVC_HASH_TBL",
                                   "PTRC_HASH_TBL", "JCACHE_HASH_TBL", "TRAN_AGT"}) {
        std::string logged = name == "TRAN_AGT" ? "tran_agt_shm" : name;
        for (char& letter : logged)
            letter = static_cast<char>(std::tolower(letter));
        daemon.create_shm(name + "_SHMKEY", 200); // smaller than any of them
        EXPECT_EQ(last_line_of_a_failed_start(), shm("<!> " + logged + " create error", name));
        shmctl(daemon.shm_id(name + "_SHMKEY"), IPC_RMID, nullptr);
    }
    const key_t key = daemon.sem_key("TRAN_AGT_SEMKEY");
    semctl(daemon.sem_id("TRAN_AGT_SEMKEY"), 0, IPC_RMID);
    semget(key, 1, IPC_CREAT | 0666); // fewer than it needs
    EXPECT_EQ(last_line_of_a_failed_start(), keyed("<!> tran agent semaphore create error", key));
    const agt::unique_fd listener(agt::open_tcp_server_session("127.0.0.1", daemon.port()));
    const std::string port = std::to_string(daemon.port());
    EXPECT_EQ(last_line_of_a_failed_start(),
              "<!> init tcp server fail. (agent ip : 127.0.0.1, cmd_port : " + port + ")");
}

TEST_F(Startup, TakesOptionalAndOddValues) {
    daemon.unset("SERVICE_HASH", "DAILY_UPDATE_HHMI");
    daemon.unset("SERVICE_HASH", "DAILY_UPDATE_SCRIPT");
    start_running(daemon);
    EXPECT_EQ(daemon.count_log(">> Pass DAILY_UPDATE_HHMI\n"), 2u);
    EXPECT_EQ(daemon.stop(), 0);

    const std::string home = daemon.path(std::string(80, 'h')); // absolute, and a long word
    std::filesystem::create_directories(home + "/proc/kessard");
    daemon.set("COMMON", "LOG_HOME", home);
    daemon.set("SERVICE_HASH", "DAILY_UPDATE_HHMI", "235959");
    daemon.set("SERVICE_HASH", "DAILY_UPDATE_SCRIPT", "/bin/true");
    daemon.set("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", "500");
    start_running(daemon);
    EXPECT_TRUE(in_order(daemon, {"(I) Active Service Detail Monitoring ON.(500ms)\n",
                                  ">> Update DAILY_UPDATE_HHMI(4DIGIT) : 2359\n",
                                  ">> Update DAILY_UPDATE_SCRIPT : /bin/true\n"}));
    EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(Startup, PrintsUsageAndVersion) {
    const std::string usage =
        std::string("usage: ") + KESSARD_PROGRAM +
        " [-hvdc:p:]\n\t -h: help\n\t -v: version information\n\t -d: make daemon\n"
        "\t -c: status log value clear second(s)\n"
        "\t -p: status log print second(s), disable(0)\n"
        "\t -i: process_info idx.(ref. agt.cfg)\n";
    for (const char* option : {"-h", "-x", "-c", "-v"}) {
        daemon.start({"-d", option});
        EXPECT_EQ(daemon.wait_exit(), 0);
        EXPECT_EQ(daemon.out(), option == std::string("-v") ? "kessard v2.0(2013.3.26)\n" : usage);
    }
}

TEST_F(Startup, GoesIntoTheBackground) {
    const agt::unique_fd inherited(open("/dev/zero", O_RDONLY)); // not close-on-exec
    daemon.start_daemon();
    ASSERT_TRUE(daemon.wait_log("start... running : 1"));
    const pid_t pid = daemon.pid();
    const std::string proc = "/proc/" + std::to_string(pid);
    for (const char* fd : {"/fd/0", "/fd/1", "/fd/2"})
        EXPECT_EQ(std::filesystem::read_symlink(proc + fd), "/dev/null");
    EXPECT_EQ(std::ranges::count(open_files(pid), "/dev/zero"), 0);
    EXPECT_EQ(getpgid(pid), pid);
    EXPECT_NE(getsid(pid), pid); // still in the session it was started in
    EXPECT_EQ(status_of(pid, "Umask"), "0000");
    EXPECT_EQ(std::filesystem::read_symlink(proc + "/cwd"), std::filesystem::current_path());
    for (const int signo : {SIGHUP, SIGTSTP, SIGTTIN, SIGTTOU, SIGPIPE})
        daemon.signal(signo);
    EXPECT_TRUE(answers(daemon));
    EXPECT_EQ(daemon.stop(), 0);

    daemon.start_daemon();
    ASSERT_TRUE(daemon.wait_log("start... running : 1", 2));
    daemon.signal(SIGINT); // not handled in the background
    EXPECT_EQ(daemon.wait_exit(), 128 + SIGINT);
}

} // namespace
