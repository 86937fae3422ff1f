// Housekeeping passes: the liveness sweep, the statistics and their countdowns, the reset in silence, the update
// triggers.
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "check_ptrc_hash_tbl.h"
#include "client.h"
#include "full_listener.h"
#include "log_printf.h"
#include "process_globals.h"
#include "settings.h"
#include "shcmd_service_list.h"
#include "st_log.h"
#include "trace_table.h"
#include "tran_logf_que_info.h"

namespace {

using namespace kessard;
using namespace test_support;

constexpr int DEAD_PID = 4194305; // beyond the largest that the system gives
constexpr char STARTED[] = "(I) run shell-command get service list starting..";

std::string own_name() {
    char name[16] = "";
    prctl(PR_GET_NAME, name);
    return name;
}

class Housekeeping : public testing::Test {
  protected:
    test_log log;
    trace_table table;
    TRAN_LOGF_QUE_INFO memory{};
    std::string trigger = log.directory() + "/trigger";
    agt::unique_fd ended{eventfd(1, EFD_CLOEXEC)}; // makes the daily trigger's pause short

    Housekeeping() {
        running = 1;
        memory.magic_code = TRACE_ON_MAGIC_CODE;
        que_info = &memory;
        tot_logs = print_time = clear_time = trc_sts_check_period = 0;
        client_list = {};
        daily_update_yn = false;
        std::snprintf(svc_update_chk_fn, sizeof svc_update_chk_fn, "%s", trigger.c_str());
        set_daily_time("----");
        agt::set_cancel_fd(ended.get());
        start_st_log_passes();
    }
    ~Housekeeping() override {
        agt::set_cancel_fd(-1);
        que_info = nullptr;
    }

    static void set_daily_time(const std::string& hhmi) {
        std::memset(update_service_hhmi, 0, sizeof update_service_hhmi);
        std::memcpy(update_service_hhmi, hhmi.data(), hhmi.size());
    }
    void make_trigger() const { std::ofstream(trigger) << "now\n"; }
    // The lines of `count` passes, each bringing `logs` logs.
    texts run_passes(int count, int logs = 0) {
        log.clear();
        for (int i = 0; i < count; ++i) {
            tot_logs += logs;
            st_log_pass();
        }
        return log.lines();
    }
};

TEST_F(Housekeeping, LooksAtAnEntryWhenItsStateAndTimeSaySo) {
    const struct {
        char trc_sts;
        int idle_sec;
        int elapsed; // chk_elps_sec before
        int period;
        bool checked;
        int elapsed_after;
    } cases[] = {{'f', 6, 3, 1, true, 3},     {'f', 5, 3, 1, false, 4},   {'f', 5, 9, 1, true, 0},
                 {'h', 0, 3, 1, true, 3},     {'h', 100, 9, 10, true, 9}, {'a', 0, 8, 1, false, 9},
                 {'a', 0, 9, 1, true, 0},     {'a', 100, 0, 9, false, 9}, {'a', 0, 0, 10, true, 0},
                 {'a', 0, 3, 86400, true, 0}, {'F', 100, 0, 1, false, 1}, {'H', 100, 0, 1, false, 1},
                 {0, 100, 0, 1, false, 1},    {'a', 0, -5, 10, false, 5}};
    PTRC_HASH_ARR& entry = table.add("worker", DEAD_PID);
    for (const auto& one : cases) {
        SCOPED_TRACE(testing::Message() << one.trc_sts << " idle " << one.idle_sec << " elapsed " << one.elapsed);
        within_one_second(
            [&](time_t now) {
                entry.trc_sts = one.trc_sts;
                entry.lasted_access = now - one.idle_sec;
                entry.chk_elps_sec = static_cast<char>(one.elapsed);
                entry.isalive = 1;
                trc_sts_check_period = one.period;
            },
            check_ptrc_hash_tbl);
        EXPECT_EQ(entry.isalive, one.checked ? 0 : 1);
        EXPECT_EQ(entry.chk_elps_sec, one.elapsed_after);
    }
}

TEST_F(Housekeeping, MarksLiveRenamedAndDeadProcesses) {
    trc_sts_check_period = 10;
    const struct {
        std::string name;
        int pid;
        char before;
        char after;
        const char* line; // without name and pid; null: none
    } cases[] = {{own_name(), getpid(), 0, 1, nullptr},
                 {own_name(), getpid(), 2, 2, nullptr},
                 {own_name(), getpid(), 127, 127, nullptr},
                 {own_name() + "x", getpid(), 2, 0, "@@@ process down : "},
                 {"", getpid(), 1, 0, "@@@ process down : "},
                 {own_name(), DEAD_PID, 1, 0, "@@@ process down: "},
                 {"worker", DEAD_PID + 1, 5, 0, "@@@ process down: "},
                 {"worker", 0, 1, 0, "@@@ process down: "}};
    texts wanted = {"##### ptrc hash table (total : 9) #####", ""};
    std::vector<PTRC_HASH_ARR*> entries;
    for (const auto& one : cases) {
        entries.push_back(&table.add(one.name, one.pid));
        entries.back()->isalive = one.before;
        if (one.line != nullptr)
            wanted.push_back(one.line + one.name + "(" + std::to_string(one.pid) + ")");
    }
    PTRC_HASH_ARR& endless = table.add("", 1); // no field has a terminator
    std::memset(endless.proc_nm, 'x', sizeof endless.proc_nm + sizeof endless.cont_nm);
    std::memset(endless.pid, '9', sizeof endless.pid);
    wanted.push_back("@@@ process down: " + std::string(31, 'x') + "(999999999)");
    check_ptrc_hash_tbl();
    for (std::size_t i = 0; i < entries.size(); ++i)
        EXPECT_EQ(entries[i]->isalive, cases[i].after) << "entry " << i;
    EXPECT_EQ(log.lines(), wanted);
}

TEST_F(Housekeeping, LooksOnceForNeighboursAndRightForInterleavedProcesses) {
    trc_sts_check_period = 10;
    for (unsigned long i = 0; i < 1000; ++i)
        table.add("worker", DEAD_PID, i);
    check_ptrc_hash_tbl();
    EXPECT_EQ(log.count("@@@ process down: worker(4194305)"), 1u);
    check_ptrc_hash_tbl(); // the next sweep knows nothing of this one
    EXPECT_EQ(log.count("@@@ process down: worker(4194305)"), 2u);
    for (int i = 0; i < 600; ++i) { // the cache may miss a record that it holds
        const bool own = i % 3 == 0;
        table.add(own ? own_name() : "worker" + std::to_string(i % 7), own ? getpid() : DEAD_PID + i % 5);
    }
    check_ptrc_hash_tbl();
    for (unsigned i = 0; i < table->used.top; ++i)
        EXPECT_EQ(table->h_arr[table->used.idx[i]].param.isalive, i >= 1000 && (i - 1000) % 3 == 0 ? 1 : 0) << i;
}

TEST_F(Housekeeping, TakesAFullTableAndSwitchesTracingOffForACorruptOne) {
    trc_sts_check_period = 10;
    PTRC_HASH_ARR& entry = table.add("worker", DEAD_PID);
    entry.trc_sts = 'h';
    for (const unsigned top : {10001u, 0xffffffffu}) {
        memory.magic_code = TRACE_ON_MAGIC_CODE;
        table->used.top = top;
        check_ptrc_hash_tbl();
        EXPECT_EQ(memory.magic_code, 0u);
        EXPECT_EQ(entry.isalive, 1);
    }
    memory.magic_code = TRACE_ON_MAGIC_CODE;
    const unsigned slots[] = {PTRC_HASH_SLOTS - 1, PTRC_HASH_SLOTS, 0xffffffffu}; // only the first exists
    for (unsigned i = 0; i < PTRC_HASH_SLOTS; ++i)
        table->used.idx[i] = slots[i % 3];
    table->used.top = PTRC_HASH_SLOTS;
    const std::string stacks(reinterpret_cast<char*>(&table->available), 2 * sizeof(PTRC_HASH_STK));
    running = 0; // the daemon ends
    check_ptrc_hash_tbl();
    EXPECT_EQ(entry.isalive, 1);
    running = 1;
    check_ptrc_hash_tbl();
    EXPECT_EQ(entry.isalive, 0);
    EXPECT_EQ(memory.magic_code, TRACE_ON_MAGIC_CODE);
    EXPECT_EQ(log.count("@@@ process down: worker"), 1u);
    EXPECT_EQ(std::memcmp(stacks.data(), &table->available, stacks.size()), 0);
}

TEST_F(Housekeeping, PrintsEveryPrintTimePasses) {
    const std::string line(76, '-');
    const std::string clients = "^^^ client send logs statistics ^^^";
    print_time = 10;
    client_list.client_num = 2;
    client_list.client[0].send_logs = 7;
    client_list.client[1].send_logs = -1;
    start_st_log_passes();
    EXPECT_EQ(run_passes(9, 3), texts());
    EXPECT_EQ(run_passes(1, 3),
              (texts{line, "clients 2/5 , total_logs 30, curr_logs 30", clients, " > 0 : 7", " > 1 : -1"}));
    client_list.client_num = 0;
    EXPECT_EQ(run_passes(9, 1), texts());
    EXPECT_EQ(run_passes(1), (texts{line, "clients 0/5 , total_logs 39, curr_logs 9", clients}));
}

TEST_F(Housekeeping, PrintsAndSweepsInTheirPeriods) {
    const struct {
        int period;
        std::size_t times; // in seven passes
    } cases[] = {{3, 2}, {1, 7}, {7, 1}, {8, 0}, {0, 0}, {-3, 0}};
    for (const auto& one : cases) {
        trc_sts_check_period = print_time = one.period;
        start_st_log_passes();
        run_passes(7);
        EXPECT_EQ(log.count("##### ptrc hash table"), one.times) << one.period;
        EXPECT_EQ(log.count("clients 0/5"), one.times) << one.period;
    }
}

TEST_F(Housekeeping, ClearsTheCountersOnceInASilence) {
    clear_time = 3;
    print_time = 1;
    start_st_log_passes();
    run_passes(1, 5);
    run_passes(2);
    EXPECT_EQ(tot_logs, 5);
    run_passes(1, 1); // breaks the silence
    run_passes(2);
    EXPECT_EQ(tot_logs, 6);
    run_passes(1);
    EXPECT_EQ(tot_logs, 0);
    EXPECT_EQ(run_passes(1, 4).at(1), "clients 0/5 , total_logs 4, curr_logs 4");
    for (const int never : {0, -1}) {
        clear_time = never;
        run_passes(10);
        EXPECT_EQ(tot_logs, 4);
    }
}

TEST_F(Housekeeping, AnnouncesAForcedUpdateOncePerFile) {
    for (int i = 0; i < 2; ++i) {
        make_trigger();
        EXPECT_EQ(run_passes(3), (texts{">> Check OK, [" + trigger + "] ..", "(I) start forced update service"}));
        EXPECT_FALSE(std::filesystem::exists(trigger));
    }
}

TEST_F(Housekeeping, AnnouncesTheDailyUpdateOncePerDate) {
    const std::string line = "(I) time over!! start update service hhmi(";
    set_daily_time("0000");
    make_trigger();
    EXPECT_EQ(run_passes(1).size(), 2u);                         // the file comes first
    for (const char* zone : {"EAST-14", "WEST+12", "EAST-14"}) { // never the same date
        setenv("TZ", zone, 1);
        tzset();
        EXPECT_EQ(run_passes(3), texts{line + "0000)"}) << zone;
    }
    unsetenv("TZ");
    tzset();
    for (const char* never : {"2400", "----", "", "9"}) {
        set_daily_time(never);
        start_st_log_passes();
        EXPECT_EQ(run_passes(2), texts()) << never;
    }
    char hhmi[8];
    const struct tm local = agt::local_time(std::time(nullptr));
    std::strftime(hhmi, sizeof hhmi, "%H%M", &local);
    set_daily_time(hhmi);
    start_st_log_passes(); // a restart forgets the day
    EXPECT_EQ(run_passes(2), texts{line + hhmi + ")"});
}

TEST_F(Housekeeping, StartsOneUpdateAtATime) {
    full_listener listener; // the upload hangs in its connection
    listener.fill_up();
    set_server_address("127.0.0.1", listener.port());
    daily_update_yn = true;
    make_trigger();
    run_passes(1);
    make_trigger();
    st_log_pass();
    EXPECT_EQ(log.count(STARTED), 1u);
    EXPECT_EQ(log.count("<!> update service is already running now.. skip action ."), 1u);
    running = 0;
    th_cancel_shcmd_service_list();
    th_join_shcmd_service_list();
    EXPECT_EQ(log.lines().back(), "(I) completed join shcmd_service_list.");
    EXPECT_EQ(log.count("End Thread-function"), 0u); // and no retrieval at the end of the daemon
}

} // namespace
