// The worker watchdog: what its set-up refuses, the skip list, both modes, the bytes of its events.
#include "check_worker.h"
#include "parse_log_que.h"
#include "process_globals.h"
#include "settings.h"
#include "trace_table.h"
#include "worker_cfg.h"

namespace {

using namespace kessard;
using namespace std::string_literals;
using namespace test_support;

class Watchdog : public trace_table_test {
  protected:
    PARSE_LOG_QUE* queue = nullptr;

    Watchdog() {
        std::memcpy(log_interface, "01", 3);
        setenv("TRAN_AGT_CFG_FILE", a.cfg_file().c_str(), 1);
    }
    ~Watchdog() override {
        delete_skip_hash();
        detach_parse_log_que();
    }

    int set_up() {
        a.write_cfg();
        worker_cfg = {};
        delete_skip_hash();
        a.mark_log();
        return init_is_working();
    }
    void set_up(const std::string& mode) {
        a.set("KESSARD", "WORKER_MODE", mode);
        ASSERT_EQ(set_up(), 1);
        queue = &a.parse_log_que()->que[0];
    }
    // Runs a pass; "evt_id proc_nm pid/tid" of each event that it put, as the log tells them.
    texts pass() {
        queue->info.front = queue->info.rear;
        EXPECT_TRUE(check_worker_pass());
        texts found;
        while (queue->info.front != queue->info.rear) {
            queue->info.front = (queue->info.front + 1) % PARSE_LOG_QUE_SLOTS;
            const auto& event = queue->data[queue->info.front].parse_log.keep_log.bdy.evt_log;
            const std::string text = event.evt_info_str;
            found.push_back(std::string(event.evt_id, 4) + " " +
                            text.substr(0, text.find(" (Last")));
        }
        return found;
    }
};

TEST_F(Watchdog, TakesOrRefusesItsSettings) {
    const char* const LOW = "<!> WORKER_REST_INTERVAL too low. default setting(60sec)";
    // The value, null when missing; what init_is_working() says; the watchdog's state; its line.
    const std::tuple<const char*, const char*, const char*, int, int, std::string> cases[] = {
        {"TRAN_LOGF", "TR_SECTION", nullptr, 0, 0, ""},
        {"KESSARD", "WORKER_CHECK_INTERVAL", nullptr, 0, 0, ""},
        {"KESSARD", "WORKER_CHECK_INTERVAL", "0", 0, 0,
         "<!> WORKER_CHECK_INTERVAL is 0. finished job."},
        {"KESSARD", "WORKER_REST_INTERVAL", nullptr, 0, 1, ""},
        {"KESSARD", "WORKER_MODE", nullptr, 0, 1, ""},
        {"KESSARD", "WORKER_MODE", "Thread", 0, 1, "<!> WORKER_MODE init fail"},
        {"KESSARD", "SKIP_PROC", nullptr, 0, 1, ""},
        {"IPC_SEMAPHORE", "PARSE_LOG_QUE_SEMKEY", nullptr, 0, 1, ""},
        {"IPC_SHARED_MEMORY", "PARSE_LOG_QUE_SHMKEY", nullptr, 0, 1, ""},
        {"KESSARD", "WORKER_REST_INTERVAL", "59", 1, 1, LOW},
        {"KESSARD", "WORKER_REST_INTERVAL", "-1", 1, 1, LOW},
        {"KESSARD", "WORKER_REST_INTERVAL", "61", 1, 1, ""},
        {"KESSARD", "WORKER_MODE", "process", 1, 1, ""}};
    for (const auto& [section, keyword, value, ret, flag, line] : cases) {
        const std::string text = value == nullptr ? "" : value;
        SCOPED_TRACE(keyword + (" " + text));
        const std::string good = a.value(section, keyword);
        value == nullptr ? a.unset(section, keyword) : a.set(section, keyword, text);
        EXPECT_EQ(set_up(), ret);
        a.set(section, keyword, good);
        EXPECT_EQ(worker_cfg.worker_flag, flag);
        EXPECT_EQ(a.count_log("<!>"), line.empty() ? 0u : 1u) << a.log();
        EXPECT_TRUE(in_order(a.log(), {line}));
        EXPECT_TRUE(ret == 0 || worker_cfg.worker_rest_interval == (text == "61" ? 61 : 60));
        EXPECT_TRUE(ret == 0 || worker_cfg.worker_mode ==
                                    (text == "process" ? WORKER_MODE_PROCESS : WORKER_MODE_THREAD));
    }
}

TEST_F(Watchdog, CreatesOrOpensItsQueue) {
    for (const std::string how : {"create", "open"}) {
        EXPECT_EQ(set_up(), 1);
        EXPECT_EQ(a.count_log("(i) parse_log_que " + how + " complete.[key:0x"), 1u);
        EXPECT_EQ(a.parse_log_que()->que[0].info.rear, how == "open" ? 5 : 0); // left as it is
        a.parse_log_que()->que[0].info.rear = 5;
        detach_parse_log_que();
    }
    EXPECT_EQ(semctl(a.sem_id("PARSE_LOG_QUE_SEMKEY"), 15, GETVAL), 1);
    semctl(a.sem_id("PARSE_LOG_QUE_SEMKEY"), 0, IPC_RMID);
    semget(a.sem_key("PARSE_LOG_QUE_SEMKEY"), 1, IPC_CREAT | IPC_EXCL | 0600); // not 16
    EXPECT_EQ(set_up(), 0);
    EXPECT_EQ(a.count_log("<!> parse_log_que semaphore create error.[key:0x"), 1u);
    a.set("IPC_SHARED_MEMORY", "PARSE_LOG_QUE_SHMKEY", a.shm_key("SVC_HASH_TBL_SHMKEY"));
    a.create_shm("SVC_HASH_TBL_SHMKEY", 100); // too small
    EXPECT_EQ(set_up(), 0);
    EXPECT_EQ(a.count_log("<!> parse_log_que create error.[key:0x"), 1u);
}

TEST_F(Watchdog, SkipsTheFirstTwentyNames) {
    const std::string longest(30, 'n'); // what is longer is cut
    EXPECT_EQ(find_skip_hash("a"), 0);  // the list is empty
    const std::string names = "a,b,c,d,twice,twice,g,h,i,j,k,l,m,n,o,p,q,r,";
    a.set("KESSARD", "SKIP_PROC", names + longest + "cut,t,u,v,w,x,y");
    ASSERT_EQ(set_up(), 1);
    for (const auto& name : {"a"s, "j"s, "t"s, "twice"s, longest})
        EXPECT_EQ(find_skip_hash(name.c_str()), 1) << name;
    for (const auto& name : {"u"s, "y"s, "A"s, "ab"s, ""s, "a,b"s, longest + "c", 'n' + longest})
        EXPECT_EQ(find_skip_hash(name.c_str()), 0) << name;
    a.set("KESSARD", "SKIP_PROC", "b");
    EXPECT_EQ(set_up() + find_skip_hash("a"), 1); // a new list
}

TEST_F(Watchdog, ReportsIdleProcessesInProcessMode) {
    set_up("PROCESS");
    PTRC_HASH_ARR& limit = table.add("limit", 11);
    table.add("idle", 12, 0, 1000);
    table.add("thread", 13, 77, 1000);
    table.add("skipped", 14, 0, 1000);
    texts wanted = {"1710 Process not running. [idle / pid:12 / tid:0]",
                    "1710 Thread not running. [thread / pid:13 / tid:77]"};
    for (const int idle_sec : {60, 61}) {
        if (idle_sec == 61)
            wanted.insert(wanted.begin(), "1710 Process not running. [limit / pid:11 / tid:0]");
        texts found;
        within_one_second([&](time_t now) { limit.lasted_access = now - idle_sec; },
                          [&] { found = pass(); });
        EXPECT_EQ(found, wanted);
    }
    EXPECT_GE(a.count_log("[CHECK_WORKER] worker check start. [PTRC->A:4/T:4/10000]"), 2u);
    EXPECT_EQ(a.count_log("[ADD]") + a.count_log("Delete worker list"), 0u);
    table->used.idx[0] = PTRC_HASH_SLOTS; // no slot, as the next
    table->used.idx[3] = 0xffffffffu;
    EXPECT_EQ(pass(), texts(wanted.begin() + 1, wanted.end()));
}

TEST_F(Watchdog, ReportsThreadsAndProcessesWithoutActiveThreadsInThreadMode) {
    set_up("THREAD");
    table.add("good", 21);
    table.add("good", 21, 1);
    table.add("good", 21, 2, 1000);
    table.add("stuck", 22);
    PTRC_HASH_ARR& stuck = table.add("stuck", 22, 3, 1000);
    table.add("early", 23, 4); // its process comes later
    table.add("early", 23);
    table.add("skipped", 25, 0, 1000);
    table.add("skipped", 25, 5, 1000);
    const texts others = {"1711 Thread not running. [good / pid:21 / tid:2]",
                          "1711 Process not running. [early / pid:23 / tid:0]"};
    EXPECT_EQ(pass(), (texts{others[0], "1711 Thread not running. [stuck / pid:22 / tid:3]",
                             "1711 Process not running. [stuck / pid:22 / tid:0]", others[1]}));
    EXPECT_TRUE(in_order(
        a.log(), {"[CHECK_WORKER] worker check start. [PTRC->A:9/T:9/10000]\n", "[ADD] good(21)\n",
                  "[CHECK_WORKER] send_event [good, pid:21, tid:2] [ret:1]\n", "[ADD] stuck(22)\n",
                  "[ADD] early(23)\n", "[CHECK_WORKER] send event. stuck(22)\n",
                  "send event. early(23)\n", "[CHECK_WORKER] Delete worker list. [count:3]\n"}));
    stuck.lasted_access += 1000; // the list is made anew by every pass
    EXPECT_EQ(pass(), others);
}

// Compares a record of the second `now` with blanks but for its constant texts and its name, pid,
// tid, event and message.
void expect_record(const PARSE_LOG_QUE_DATA& record, time_t now, const texts& own) {
    const std::string bytes = bytes_of(record);
    const std::string usec = bytes.substr(190, 6);
    EXPECT_EQ(usec.find_first_not_of("0123456789"), std::string::npos);
    const std::size_t places[] = {40, 138, 147, 197, 220, 0, 2, 5, 73, 175, 184, 932};
    texts parts = own;
    parts.insert(parts.end(), {"V", "01", "T", host_name(), local_text("%Y%m%d", now) + '\0',
                               local_text("%H%M%S", now) + usec + '\0', "V"});
    std::string wanted(944, ' ');
    for (std::size_t i = 0; i < parts.size(); ++i)
        wanted.replace(places[i], parts[i].size(), parts[i]);
    EXPECT_EQ(bytes, wanted);
}

TEST_F(Watchdog, WritesEveryByteOfAnEvent) {
    set_up("PROCESS");
    const PTRC_HASH_ARR& plain = table.add("worker", 4194305, 0, 1000);
    PTRC_HASH_ARR& full = table.add("", 77, 140737488355327, 5000);
    std::memset(full.proc_nm, 'x', sizeof full.proc_nm); // runs on, cut to 30 characters
    std::memset(full.pid, '8', sizeof full.pid);
    std::memset(full.tid, '9', sizeof full.tid);
    const time_t now = within_one_second([&](time_t) { queue->info = {}; },
                                         [] { EXPECT_TRUE(check_worker_pass()); });
    ASSERT_EQ(queue->info.rear, 2);
    const auto last_access = [](const PTRC_HASH_ARR& entry) {
        return local_text(" (Last access tm : %Y-%m-%d %H:%M:%S)", entry.lasted_access) + '\0';
    };
    expect_record(queue->data[1], now,
                  {"worker", "4194305\0"s, "000000000000000", "1710",
                   "Process not running. [worker / pid:4194305 / tid:0]" + last_access(plain)});
    const std::string name(30, 'x');
    const std::string ids = " / pid:77 / tid:140737488355327]";
    expect_record(queue->data[2], now,
                  {name, "88888888", "999999999999999", "1710",
                   "Thread not running. [" + name + ids + last_access(full)});
}

TEST_F(Watchdog, ReportsACorruptTableAndStops) {
    set_up("PROCESS");
    table.add("worker", 41, 5);
    for (const std::string top : {"10001", "-1"}) {
        const auto spoil = [&](time_t) {
            queue->info = {};
            table->used.top = static_cast<unsigned>(std::stoi(top));
        };
        const time_t now = within_one_second(spoil, [] { EXPECT_FALSE(check_worker_pass()); });
        const std::string message = "PTRC range error. [A:1/T:" + top + "/10000]" + '\0';
        expect_record(queue->data[1], now, {"", "", "", "2010", message});
        EXPECT_GE(a.count_log("<!> PTRC hash range error (A:1/T:" + top + "/10000)n"), 1u);
        const std::string examined = top == "-1" ? "worker, pid:41, tid:5" : ", pid:0, tid:0";
        EXPECT_GE(a.count_log("send_event [" + examined + "] [ret:1]"), 1u);
        table->used.top = 1;
        EXPECT_TRUE(check_worker_pass()); // examines the entry
    }
}

TEST_F(Watchdog, GoesOnWhenTheQueueIsFull) {
    set_up("PROCESS");
    table.add("one", 61, 0, 1000);
    table.add("two", 62, 0, 1000);
    queue->info = {2, 0}; // room for one
    EXPECT_TRUE(check_worker_pass());
    EXPECT_EQ(queue->info.front, 2);
    EXPECT_EQ(queue->info.rear, 1);
    EXPECT_EQ(a.count_log("[CHECK_WORKER] send_event [two, pid:62, tid:0] [ret:-1]"), 1u);
    queue->info.rear = PARSE_LOG_QUE_SLOTS; // out of range: put back to where the reader stands
    EXPECT_TRUE(check_worker_pass());
    EXPECT_EQ(a.count_log("<!> parse_log_que rear was out of range, put back to front."), 1u);
    EXPECT_EQ(queue->info.rear, 4);
    EXPECT_EQ(a.count_log("[ret:1]"), 3u);
    EXPECT_EQ(a.count_log("<!> put_parse_log_que fail"), 1u);
}

// It waits in its first event; no process is reported, whose threads may not have been looked at.
TEST_F(Watchdog, PutsUnderTheSemaphoreAndReportsNoProcessWhenTheDaemonEndsMeanwhile) {
    set_up("THREAD");
    table.add("worker", 72);
    table.add("worker", 72, 1, 1000);
    table.add("worker", 72, 2);
    const int semid = a.sem_id("PARSE_LOG_QUE_SEMKEY");
    ASSERT_EQ(semctl(semid, 0, SETVAL, 0), 0);
    const agt::unique_fd ended(open("/dev/null", O_CLOEXEC)); // an end cuts the wait: no fault
    agt::set_cancel_fd(ended.get());
    EXPECT_TRUE(check_worker_pass());
    agt::set_cancel_fd(-1);
    EXPECT_EQ(a.count_log("put_parse_log_que fail") + a.count_log("send_event"), 0u);
    std::thread watchdog([] { check_worker_pass(); });
    EXPECT_TRUE(wait_until([&] { return semctl(semid, 0, GETNCNT) == 1; }));
    EXPECT_EQ(queue->info.rear, 0);
    running = 0;
    EXPECT_EQ(semctl(semid, 0, SETVAL, 1), 0);
    watchdog.join();
    EXPECT_EQ(semctl(semid, 0, GETVAL), 1);
    EXPECT_EQ(queue->info.rear, 1);
    EXPECT_EQ(a.count_log("send event. worker(72)"), 0u);
}

} // namespace
