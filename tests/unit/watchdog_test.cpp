// The worker watchdog: what its set-up refuses, the skip list, both modes, the bytes of its events.
#include <sys/sem.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>

#include "check_worker.h"
#include "parse_log_que.h"
#include "process_globals.h"
#include "settings.h"
#include "trace_table.h"
#include "worker_cfg.h"

namespace {

using namespace kessard;
using namespace test_support;

constexpr int REST_SEC = 60;

// The configuration, keys and directory of an agent whose program is never started.
class Watchdog : public testing::Test {
  protected:
    agent a;
    test_log log;
    trace_table table;
    PARSE_LOG_QUE* queue = nullptr;

    Watchdog() {
        running = 1;
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
        log.clear();
        return init_is_working();
    }
    void set_up(const std::string& mode) {
        a.set("KESSARD", "WORKER_MODE", mode);
        ASSERT_EQ(set_up(), 1);
        queue = &a.parse_log_que()->que[0];
        log.clear();
    }
    PTRC_HASH_ARR& add(const std::string& name, int pid, unsigned long tid, int idle_sec) {
        PTRC_HASH_ARR& entry = table.add(name, pid, tid);
        entry.lasted_access -= idle_sec;
        return entry;
    }

    // Runs a pass; "evt_id proc_nm pid/tid" of each event that it put, as the log tells them.
    texts pass() {
        queue->info.front = queue->info.rear;
        EXPECT_TRUE(check_worker_pass());
        texts found;
        while (queue->info.front != queue->info.rear) {
            queue->info.front = (queue->info.front + 1) % PARSE_LOG_QUE_SLOTS;
            const TRAN_LOG_FMT& event = queue->data[queue->info.front].parse_log.keep_log;
            const std::string text = event.bdy.evt_log.evt_info_str;
            found.push_back(std::string(event.bdy.evt_log.evt_id, 4) + " " + text.substr(0, text.find(" (Last")));
        }
        return found;
    }
};

TEST_F(Watchdog, RefusesToRunWithoutASetting) {
    const struct {
        const char* section;
        const char* keyword;
        const char* value; // null: missing
        const char* line;  // in the log; null: none
    } cases[] = {
        {"TRAN_LOGF", "TR_SECTION", nullptr, nullptr},
        {"KESSARD", "WORKER_CHECK_INTERVAL", nullptr, nullptr},
        {"KESSARD", "WORKER_CHECK_INTERVAL", "0", "<!> WORKER_CHECK_INTERVAL is 0. finished job."},
        {"KESSARD", "WORKER_REST_INTERVAL", nullptr, nullptr},
        {"KESSARD", "WORKER_MODE", nullptr, nullptr},
        {"KESSARD", "WORKER_MODE", "Thread", "<!> WORKER_MODE init fail"},
        {"KESSARD", "WORKER_MODE", "Process", "<!> WORKER_MODE init fail"},
        {"KESSARD", "WORKER_MODE", "2", "<!> WORKER_MODE init fail"},
        {"KESSARD", "SKIP_PROC", nullptr, nullptr},
        {"IPC_SEMAPHORE", "PARSE_LOG_QUE_SEMKEY", nullptr, nullptr},
        {"IPC_SHARED_MEMORY", "PARSE_LOG_QUE_SHMKEY", nullptr, nullptr},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(std::string(one.keyword) + " " + (one.value == nullptr ? "missing" : one.value));
        const std::string good = a.value(one.section, one.keyword);
        if (one.value == nullptr)
            a.unset(one.section, one.keyword);
        else
            a.set(one.section, one.keyword, one.value);
        EXPECT_EQ(set_up(), 0);
        EXPECT_EQ(log.lines(), one.line == nullptr ? texts() : texts{one.line});
        EXPECT_EQ(
            worker_cfg.worker_flag,
            std::string(one.keyword).starts_with("TR_") || one.keyword == std::string("WORKER_CHECK_INTERVAL") ? 0 : 1);
        a.set(one.section, one.keyword, good);
    }
    EXPECT_EQ(set_up(), 1);
}

TEST_F(Watchdog, TakesItsSettings) {
    const struct {
        const char* rest;
        const char* mode;
        int rest_sec;
        int worker_mode;
    } cases[] = {{"30", "THREAD", 60, WORKER_MODE_THREAD},
                 {"59", "thread", 60, WORKER_MODE_THREAD},
                 {"-1", "process", 60, WORKER_MODE_PROCESS},
                 {"60", "PROCESS", 60, WORKER_MODE_PROCESS},
                 {"90", "PROCESS", 90, WORKER_MODE_PROCESS}};
    a.set("KESSARD", "WORKER_CHECK_INTERVAL", 7);
    for (const auto& one : cases) {
        a.set("KESSARD", "WORKER_REST_INTERVAL", one.rest);
        a.set("KESSARD", "WORKER_MODE", one.mode);
        EXPECT_EQ(set_up(), 1);
        EXPECT_EQ(worker_cfg.worker_rest_interval, one.rest_sec);
        EXPECT_EQ(worker_cfg.worker_mode, one.worker_mode);
        EXPECT_EQ(log.count("<!> WORKER_REST_INTERVAL too low. default setting(60sec)"),
                  std::atoi(one.rest) < 60 ? 1u : 0u);
    }
    EXPECT_EQ(worker_cfg.worker_check_interval, 7);
    EXPECT_EQ(worker_cfg.worker_flag, 1);
    EXPECT_STREQ(worker_cfg.tr_section, "T");
}

TEST_F(Watchdog, CreatesOrOpensItsQueue) {
    char shm_key[32];
    char sem_key[32];
    std::snprintf(shm_key, sizeof shm_key, "[key:0x%x]", static_cast<unsigned>(a.shm_key("PARSE_LOG_QUE_SHMKEY")));
    std::snprintf(sem_key, sizeof sem_key, "[key:0x%x]", static_cast<unsigned>(a.sem_key("PARSE_LOG_QUE_SEMKEY")));
    const std::string semaphore = std::string("(i) parse_log_que semaphore create complete.") + sem_key;
    EXPECT_EQ(set_up(), 1);
    EXPECT_EQ(log.lines(), (texts{std::string("(i) parse_log_que create complete.") + shm_key, semaphore}));
    EXPECT_EQ(semctl(a.sem_id("PARSE_LOG_QUE_SEMKEY"), 15, GETVAL), 1);
    a.parse_log_que()->que[0].info.rear = 5;
    detach_parse_log_que();
    EXPECT_EQ(set_up(), 1);
    EXPECT_EQ(log.lines(), (texts{std::string("(i) parse_log_que open complete.") + shm_key, semaphore}));
    EXPECT_EQ(a.parse_log_que()->que[0].info.rear, 5);
}

TEST_F(Watchdog, RefusesToRunWithoutItsQueue) {
    EXPECT_NE(semget(a.sem_key("PARSE_LOG_QUE_SEMKEY"), 1, IPC_CREAT | IPC_EXCL | 0600), -1); // one instead of 16
    EXPECT_EQ(set_up(), 0);
    EXPECT_EQ(log.count("<!> parse_log_que semaphore create error.[key:0x"), 1u);
    a.set("IPC_SHARED_MEMORY", "PARSE_LOG_QUE_SHMKEY", a.value("IPC_SHARED_MEMORY", "SVC_HASH_TBL_SHMKEY"));
    a.create_shm("SVC_HASH_TBL_SHMKEY", 100); // too small
    EXPECT_EQ(set_up(), 0);
    EXPECT_EQ(log.count("<!> parse_log_que create error.[key:0x"), 1u);
}

TEST_F(Watchdog, SkipsTheFirstTwentyNames) {
    a.set("KESSARD", "SKIP_PROC", "a,b,c,d,e,f,g,h,i,j,k,l,m,n,o,p,q,r,s,t,u,v,w,x,y");
    EXPECT_EQ(find_skip_hash("a"), 0); // the list is empty
    ASSERT_EQ(set_up(), 1);
    for (const char* name : {"a", "j", "t"})
        EXPECT_EQ(find_skip_hash(name), 1) << name;
    for (const char* name : {"u", "y", "A", "ab", "", "a,b"})
        EXPECT_EQ(find_skip_hash(name), 0) << name;
    delete_skip_hash();
    EXPECT_EQ(find_skip_hash("a"), 0);
}

TEST_F(Watchdog, CutsNamesOfTheSkipListTo30Characters) {
    std::string names[] = {std::string(30, 'm'), std::string(35, 'n'), "twice", "twice"};
    char* list[] = {names[0].data(), names[1].data(), names[2].data(), names[3].data(), nullptr};
    EXPECT_EQ(create_skip_hash(list), 1);
    char unterminated[31];
    std::memset(unterminated, 'n', sizeof unterminated);
    EXPECT_EQ(find_skip_hash(unterminated), 0);
    EXPECT_EQ(find_skip_hash(std::string(30, 'n').c_str()), 1);
    EXPECT_EQ(find_skip_hash(std::string(30, 'm').c_str()), 1);
    EXPECT_EQ(find_skip_hash(std::string(29, 'm').c_str()), 0);
    EXPECT_EQ(find_skip_hash("twice"), 1);
}

TEST_F(Watchdog, ReportsIdleProcessesInProcessMode) {
    set_up("PROCESS");
    PTRC_HASH_ARR& limit = add("limit", 11, 0, 0);
    add("idle", 12, 0, 1000);
    add("thread", 13, 77, 1000);
    add("skipped", 14, 0, 1000);
    texts found;
    within_one_second([&](time_t now) { limit.lasted_access = now - REST_SEC; }, [&] { found = pass(); });
    const texts others = {"1710 Process not running. [idle / pid:12 / tid:0]",
                          "1710 Thread not running. [thread / pid:13 / tid:77]"};
    EXPECT_EQ(found, others);
    EXPECT_GE(log.count("[CHECK_WORKER] worker check start. [PTRC->A:4/T:4/10000]"), 1u);
    within_one_second([&](time_t now) { limit.lasted_access = now - REST_SEC - 1; }, [&] { found = pass(); });
    EXPECT_EQ(found, (texts{"1710 Process not running. [limit / pid:11 / tid:0]", others[0], others[1]}));
    EXPECT_EQ(log.count("[ADD]"), 0u);
    EXPECT_EQ(log.count("Delete worker list"), 0u);
}

TEST_F(Watchdog, ReportsThreadsAndProcessesWithoutActiveThreadsInThreadMode) {
    set_up("THREAD");
    add("good", 21, 0, 0);
    add("good", 21, 1, 0);
    add("good", 21, 2, 1000);
    add("stuck", 22, 0, 0);
    PTRC_HASH_ARR& stuck = add("stuck", 22, 3, 1000);
    add("early", 23, 4, 0); // its process comes later
    add("early", 23, 0, 0);
    add("lonely", 24, 0, 0);
    add("skipped", 25, 0, 1000);
    add("skipped", 25, 5, 1000);
    const texts early = {"1711 Process not running. [early / pid:23 / tid:0]",
                         "1711 Process not running. [lonely / pid:24 / tid:0]"};
    EXPECT_EQ(pass(), (texts{"1711 Thread not running. [good / pid:21 / tid:2]",
                             "1711 Thread not running. [stuck / pid:22 / tid:3]",
                             "1711 Process not running. [stuck / pid:22 / tid:0]", early[0], early[1]}));
    EXPECT_EQ(log.lines(), (texts{"[CHECK_WORKER] worker check start. [PTRC->A:10/T:10/10000]",
                                  "[ADD] good(21)",
                                  "[CHECK_WORKER] send_event [good, pid:21, tid:2] [ret:1]",
                                  "",
                                  "[ADD] stuck(22)",
                                  "[CHECK_WORKER] send_event [stuck, pid:22, tid:3] [ret:1]",
                                  "",
                                  "[ADD] early(23)",
                                  "[ADD] lonely(24)",
                                  "[CHECK_WORKER] send event. stuck(22)",
                                  "[CHECK_WORKER] send_event [stuck, pid:22, tid:0] [ret:1]",
                                  "",
                                  "[CHECK_WORKER] send event. early(23)",
                                  "[CHECK_WORKER] send_event [early, pid:23, tid:0] [ret:1]",
                                  "",
                                  "[CHECK_WORKER] send event. lonely(24)",
                                  "[CHECK_WORKER] send_event [lonely, pid:24, tid:0] [ret:1]",
                                  "",
                                  "[CHECK_WORKER] Delete worker list. [count:4]",
                                  ""}));
    stuck.lasted_access = std::time(nullptr); // the list is made anew by every pass
    EXPECT_EQ(pass(), (texts{"1711 Thread not running. [good / pid:21 / tid:2]", early[0], early[1]}));
}

std::string local_text(const char* format, time_t when) {
    char text[64];
    struct tm local {};
    localtime_r(&when, &local);
    return {text, std::strftime(text, sizeof text, format, &local)};
}

// An event record as it must be, but for log_time, of a time between two seconds.
struct event_bytes {
    std::string bytes = std::string(944, ' ');
    void put(std::size_t at, const std::string& text) { bytes.replace(at, text.size(), text); }

    event_bytes(const std::string& code, const std::string& text) {
        char host[64] = "";
        gethostname(host, sizeof host);
        put(0, "V");
        put(2, "01");
        put(5, "T");
        put(73, std::string(host).substr(0, 63));
        put(197, code);
        put(220, text + '\0');
        put(932, "V");
    }
};

// Compares a record with the wanted bytes and its time with the interval.
void expect_record(const PARSE_LOG_QUE_DATA& record, event_bytes wanted, time_t from, time_t to) {
    const std::string bytes(reinterpret_cast<const char*>(&record), sizeof record);
    const std::string day_and_time = bytes.substr(175, 8) + bytes.substr(184, 6);
    EXPECT_GE(day_and_time, local_text("%Y%m%d%H%M%S", from));
    EXPECT_LE(day_and_time, local_text("%Y%m%d%H%M%S", to));
    EXPECT_EQ(bytes.substr(190, 6).find_first_not_of("0123456789"), std::string::npos);
    wanted.put(175, bytes.substr(175, 8) + '\0');
    wanted.put(184, bytes.substr(184, 12) + '\0');
    EXPECT_EQ(bytes, wanted.bytes);
}

TEST_F(Watchdog, WritesEveryByteOfAnEvent) {
    set_up("PROCESS");
    const PTRC_HASH_ARR& plain = add("worker", 4194305, 0, 1000);
    PTRC_HASH_ARR& full = add("", 77, 140737488355327, 5000);
    std::memset(full.proc_nm, 'x', sizeof full.proc_nm); // runs on into service_id, cut to 30 characters
    std::memset(full.pid, '8', sizeof full.pid);
    std::memset(full.tid, '9', sizeof full.tid);
    const time_t before = std::time(nullptr);
    EXPECT_TRUE(check_worker_pass());
    const time_t after = std::time(nullptr);
    ASSERT_EQ(queue->info.rear, 2);

    event_bytes first("1710", "Process not running. [worker / pid:4194305 / tid:0] (Last access tm : " +
                                  local_text("%Y-%m-%d %H:%M:%S", plain.lasted_access) + ")");
    first.put(40, "worker");
    first.put(138, std::string("4194305") + '\0');
    first.put(147, "000000000000000");
    expect_record(queue->data[1], first, before, after);

    const std::string name(30, 'x');
    event_bytes second("1710", "Thread not running. [" + name + " / pid:77 / tid:140737488355327] (Last access tm : " +
                                   local_text("%Y-%m-%d %H:%M:%S", full.lasted_access) + ")");
    second.put(40, name);
    second.put(138, "88888888");
    second.put(147, "999999999999999");
    expect_record(queue->data[2], second, before, after);
}

TEST_F(Watchdog, ReportsACorruptTableAndStops) {
    set_up("PROCESS");
    add("worker", 41, 5, 0);
    for (const bool examined : {false, true}) {
        SCOPED_TRACE(examined);
        log.clear();
        queue->info.front = queue->info.rear = 0;
        table->used.top = examined ? 0xffffffffu : 10001;
        const time_t before = std::time(nullptr);
        EXPECT_FALSE(check_worker_pass());
        const std::string top = examined ? "-1" : "10001";
        expect_record(queue->data[1], event_bytes("2010", "PTRC range error. [A:1/T:" + top + "/10000]"), before,
                      std::time(nullptr));
        EXPECT_EQ(log.lines(), (texts{"<!> PTRC hash range error (A:1/T:" + top + "/10000)n",
                                      std::string("[CHECK_WORKER] send_event [") +
                                          (examined ? "worker, pid:41, tid:5" : ", pid:0, tid:0") + "] [ret:1]",
                                      ""}));
        table->used.top = 1;
        EXPECT_TRUE(check_worker_pass()); // examines the entry
    }
}

TEST_F(Watchdog, PassesOverSlotsThatDoNotExist) {
    set_up("THREAD");
    add("worker", 51, 0, 0);
    unsigned* used = table->used.idx;
    used[2] = used[0];
    used[0] = PTRC_HASH_SLOTS;
    used[1] = 0xffffffffu;
    table->used.top = 3;
    EXPECT_EQ(pass(), texts{"1711 Process not running. [worker / pid:51 / tid:0]"});
}

TEST_F(Watchdog, GoesOnWhenTheQueueIsFull) {
    set_up("PROCESS");
    add("one", 61, 0, 1000);
    add("two", 62, 0, 1000);
    queue->info = {2, 0}; // room for one
    EXPECT_TRUE(check_worker_pass());
    EXPECT_EQ(queue->info.front, 2);
    EXPECT_EQ(queue->info.rear, 1);
    queue->info.rear = PARSE_LOG_QUE_SLOTS; // out of range: nothing can be put
    EXPECT_TRUE(check_worker_pass());
    const texts one = {"<!> put_parse_log_que fail", "[CHECK_WORKER] send_event [one, pid:61, tid:0] [ret:-1]", ""};
    const texts two = {"<!> put_parse_log_que fail", "[CHECK_WORKER] send_event [two, pid:62, tid:0] [ret:-1]", ""};
    const std::string start = "[CHECK_WORKER] worker check start. [PTRC->A:2/T:2/10000]";
    EXPECT_EQ(log.lines(), (texts{start, "[CHECK_WORKER] send_event [one, pid:61, tid:0] [ret:1]", "", two[0], two[1],
                                  "", start, one[0], one[1], "", two[0], two[1], ""}));
}

// Runs a pass that finds the queue's semaphore taken, and `meanwhile` while it waits for it.
template <class Action> void pass_while_locked(const agent& a, Action meanwhile) {
    const int semid = a.sem_id("PARSE_LOG_QUE_SEMKEY");
    sembuf operation = {0, -1, SEM_UNDO};
    ASSERT_EQ(semop(semid, &operation, 1), 0);
    std::thread watchdog([] { check_worker_pass(); });
    EXPECT_TRUE(wait_until([&] { return semctl(semid, 0, GETNCNT) == 1; }));
    meanwhile();
    operation.sem_op = 1;
    EXPECT_EQ(semop(semid, &operation, 1), 0);
    watchdog.join();
    EXPECT_EQ(semctl(semid, 0, GETVAL), 1);
}

TEST_F(Watchdog, PutsUnderTheSemaphoreOfTheQueue) {
    set_up("PROCESS");
    add("worker", 71, 0, 1000);
    pass_while_locked(a, [&] { EXPECT_EQ(queue->info.rear, 0); });
    EXPECT_EQ(queue->info.rear, 1);
}

// Its threads may just not have been looked at.
TEST_F(Watchdog, ReportsNoProcessWhenTheDaemonEndsMeanwhile) {
    set_up("THREAD");
    add("worker", 72, 0, 0);
    add("worker", 72, 1, 1000);
    add("worker", 72, 2, 0);
    pass_while_locked(a, [] { running = 0; });
    EXPECT_EQ(queue->info.rear, 1);
    EXPECT_EQ(log.count("send event. worker(72)"), 0u);
}

} // namespace
