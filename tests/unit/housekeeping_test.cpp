// Housekeeping passes: the sweep, the statistics, their reset in silence, the update triggers.
#include <sys/eventfd.h>

#include "check_ptrc_hash_tbl.h"
#include "chk_pids.h"
#include "client.h"
#include "full_listener.h"
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
const std::string OWN_NAME = program_invocation_short_name;

class Housekeeping : public trace_table_test {
  protected:
    TRAN_LOGF_QUE_INFO memory{};
    const std::string trigger = a.path("trigger");
    agt::unique_fd ended{eventfd(1, EFD_CLOEXEC)}; // makes the daily trigger's pause short

    Housekeeping() {
        memory.magic_code = TRACE_ON_MAGIC_CODE;
        que_info = &memory;
        tot_logs = print_time = clear_time = 0;
        trc_sts_check_period = 86400; // every sweep looks at every entry, and none comes by itself
        client_list = {};
        daily_update_yn = false;
        std::snprintf(svc_update_chk_fn, sizeof svc_update_chk_fn, "%s", trigger.c_str());
        set_daily_time("----");
        agt::set_cancel_fd(ended.get());
    }
    ~Housekeeping() override {
        agt::set_cancel_fd(-1);
        que_info = nullptr;
    }

    static void set_daily_time(const char* hhmi) {
        agt::copy_text(update_service_hhmi, hhmi);
        start_st_log_passes();
    }
    // The lines of `count` passes, each bringing `logs` logs.
    texts run_passes(int count, int logs = 0) {
        a.mark_log();
        for (int i = 0; i < count; ++i) {
            tot_logs += logs;
            st_log_pass();
        }
        return messages(a.log());
    }
};

TEST_F(Housekeeping, LooksAtAnEntryWhenItsStateAndTimeSaySo) {
    // trc_sts, idle seconds, chk_elps_sec before, the period; whether checked, chk_elps_sec after.
    const std::tuple<char, int, int, int, bool, int> cases[] = {
        {'f', 6, 3, 1, true, 3},     {'f', 5, 3, 1, false, 4},   {'f', 5, 9, 1, true, 0},
        {'h', 0, 3, 1, true, 3},     {'h', 100, 9, 10, true, 9}, {'a', 0, 8, 1, false, 9},
        {'a', 0, 9, 1, true, 0},     {'a', 100, 0, 9, false, 9}, {'a', 0, 0, 10, true, 0},
        {'a', 0, 3, 86400, true, 0}, {'F', 100, 0, 1, false, 1}, {'H', 100, 0, 1, false, 1},
        {0, 100, 0, 1, false, 1},    {'a', 0, -5, 10, false, 5}};
    PTRC_HASH_ARR& entry = table.add("worker", DEAD_PID);
    for (const auto& [trc_sts, idle_sec, elapsed, period, checked, elapsed_after] : cases) {
        SCOPED_TRACE(testing::Message() << trc_sts << " idle " << idle_sec << " after " << elapsed);
        entry.trc_sts = trc_sts;
        trc_sts_check_period = period;
        const auto prepare = [&entry, idle = idle_sec, before = elapsed](time_t now) {
            entry.lasted_access = now - idle;
            entry.chk_elps_sec = static_cast<char>(before);
            entry.isalive = 1;
        };
        within_one_second(prepare, check_ptrc_hash_tbl);
        EXPECT_EQ(entry.isalive, checked ? 0 : 1);
        EXPECT_EQ(entry.chk_elps_sec, elapsed_after);
    }
}

TEST_F(Housekeeping, MarksLiveRenamedAndDeadProcesses) {
    // isalive before and after, the line without name and pid; empty: none.
    const std::tuple<std::string, int, char, char, std::string> cases[] = {
        {OWN_NAME, getpid(), 0, 1, ""},
        {OWN_NAME, getpid(), 2, 2, ""},
        {OWN_NAME, getpid(), 127, 127, ""},
        {OWN_NAME + "x", getpid(), 2, 0, "@@@ process down : "},
        {"", getpid(), 1, 0, "@@@ process down : "},
        {OWN_NAME, DEAD_PID, 5, 0, "@@@ process down: "},
        {"wor\nker", 0, 1, 0, "@@@ process down: "}};
    texts wanted = {"##### ptrc hash table (total : 8) #####", ""};
    for (const auto& [name, pid, before, after, line] : cases) {
        table.add(name, pid).isalive = before;
        if (!line.empty())
            wanted.push_back(line + kessctl::printable(name) + "(" + std::to_string(pid) + ")");
    }
    PTRC_HASH_ARR& endless = table.add("", 1); // no field has a terminator
    std::memset(endless.proc_nm, 'x', sizeof endless.proc_nm + sizeof endless.cont_nm);
    std::memset(endless.pid, '9', sizeof endless.pid);
    wanted.push_back("@@@ process down: " + std::string(30, 'x') + "(99999999)");
    check_ptrc_hash_tbl();
    for (std::size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(table->h_arr[table->used.idx[i]].param.isalive, std::get<3>(cases[i])) << i;
    EXPECT_EQ(messages(a.log()), wanted);
}

TEST_F(Housekeeping, LooksOnceForNeighboursAndRightForInterleavedProcesses) {
    for (unsigned long i = 0; i < 1000; ++i)
        table.add("worker", DEAD_PID, i);
    for (const std::size_t sweeps : {1u, 2u}) { // the next one knows nothing of this one
        check_ptrc_hash_tbl();
        EXPECT_EQ(a.count_log("@@@ process down: worker(4194305)"), sweeps);
    }
    for (int i = 0; i < 600; ++i) { // some are looked up again
        const bool own = i % 3 == 0;
        const std::string name = own ? OWN_NAME : "worker" + std::to_string(i % 7);
        table.add(name, own ? getpid() : DEAD_PID + i % 5);
    }
    check_ptrc_hash_tbl();
    for (unsigned i = 0; i < table->used.top; ++i) {
        const int wanted = i >= 1000 && (i - 1000) % 3 == 0 ? 1 : 0;
        EXPECT_EQ(table->h_arr[table->used.idx[i]].param.isalive, wanted) << i;
    }
}

// What the C library's sort and search make of the same look-ups.
class library_cache {
  public:
    library_cache() { records_.reserve(1); } // qsort() and bsearch() take no null
    char isalive_of(const CHK_PID& wanted, char (*look_up)(const CHK_PID&)) {
        if (!records_.empty() && compare(&wanted, &records_.back()) == 0)
            return records_.back().isalive;
        std::qsort(records_.data(), records_.size(), sizeof(record), compare);
        const void* found =
            std::bsearch(&wanted, records_.data(), records_.size(), sizeof(record), compare);
        if (found != nullptr)
            return static_cast<const record*>(found)->isalive;
        records_.push_back({wanted, look_up(wanted)});
        return records_.back().isalive;
    }
    // Whether it is the sort that this is about.
    static bool reverses() {
        library_cache cache;
        for (int i = 0; i < 99; ++i)
            cache.records_.push_back({{i, ""}, 0});
        std::qsort(cache.records_.data(), 99, sizeof(record), compare);
        return cache.records_[0].process.pid == 98 && cache.records_[98].process.pid == 0;
    }

  private:
    struct record {
        CHK_PID process;
        char isalive;
    };
    static int compare(const void* a, const void* b) { return comp_chk_pid(a, b); }
    std::vector<record> records_;
};

int look_ups = 0;
char next_isalive = 0;
char look_up(const CHK_PID&) {
    ++look_ups;
    return next_isalive;
}

TEST(ChkPids, MissesWhatTheLibrarysSortAndSearchMiss) {
    if (!library_cache::reverses())
        GTEST_SKIP() << "the C library sorts otherwise";
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 engine(seed);
    const auto random = [&](unsigned below) { return static_cast<unsigned>(engine() % below); };
    for (int round = 0; round < 300 && !HasFailure(); ++round) {
        const unsigned processes = 1 + random(std::array{6u, 100u, 2000u}[random(3)]);
        library_cache expected;
        clear_chk_pids();
        for (unsigned left = 1 + random(round % 20 == 0 ? 2000 : 200); left > 0; --left) {
            const unsigned which = random(processes);
            const CHK_PID wanted = {static_cast<pid_t>(which / 2), {"ab"[which % 2]}};
            next_isalive = random(2) == 0 ? 0 : 1;
            look_ups = 0;
            ASSERT_EQ(isalive_of(wanted, look_up), expected.isalive_of(wanted, look_up));
            ASSERT_NE(look_ups, 1); // both or none
        }
    }
}

TEST_F(Housekeeping, TakesAFullTableAndSwitchesTracingOffForACorruptOne) {
    PTRC_HASH_ARR& entry = table.add("worker", DEAD_PID);
    entry.trc_sts = 'h';
    for (unsigned i = 0; i < PTRC_HASH_SLOTS; i += 2)
        table->used.idx[i + 1] = i % 4 == 0 ? 10000 : 0xffffffffu; // no slots
    const std::tuple<unsigned, int, bool, char> cases[] = {// top, running; tracing, isalive then
                                                           {10001, 1, false, 1},
                                                           {0xffffffffu, 1, false, 1},
                                                           {10000, 0, true, 1},
                                                           {10000, 1, true, 0}};
    for (const auto& [top, runs, tracing, isalive] : cases) {
        memory.magic_code = TRACE_ON_MAGIC_CODE;
        table->used.top = top;
        running = runs;
        check_ptrc_hash_tbl();
        EXPECT_EQ(memory.magic_code, tracing ? unsigned{TRACE_ON_MAGIC_CODE} : 0u) << top;
        EXPECT_EQ(entry.isalive, isalive) << top;
    }
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
    EXPECT_EQ(run_passes(1, 3), (texts{line, "clients 2/5 , total_logs 30, curr_logs 30", clients,
                                       " > 0 : 7", " > 1 : -1"}));
    client_list.client_num = 0;
    EXPECT_EQ(run_passes(9, 1), texts());
    EXPECT_EQ(run_passes(1), (texts{line, "clients 0/5 , total_logs 39, curr_logs 9", clients}));
    const std::pair<int, std::size_t> cases[] = {{3, 2}, {1, 7}, {7, 1}, {8, 0}, {0, 0}, {-3, 0}};
    for (const auto& [period, times] : cases) { // in seven passes
        trc_sts_check_period = print_time = period;
        start_st_log_passes();
        run_passes(7);
        EXPECT_EQ(a.count_log("##### ptrc hash table"), times) << period;
        EXPECT_EQ(a.count_log("clients 0/5"), times) << period;
    }
}

TEST_F(Housekeeping, ClearsTheCountersOnceInASilence) {
    const std::tuple<int, int, int, int> steps[] = {
        // clear_time, passes, logs of each; total
        {3, 1, 5, 5}, {3, 2, 0, 5}, {3, 1, 1, 6}, {3, 2, 0, 6},  {3, 1, 0, 0},
        {3, 1, 4, 4}, {3, 2, 0, 4}, {0, 9, 0, 4}, {-1, 9, 0, 4}, {3, 9, 0, 4}}; // counts on
    print_time = 1;
    start_st_log_passes();
    for (const auto& [seconds, passes, logs, total] : steps) {
        clear_time = seconds;
        const texts printed = run_passes(passes, logs);
        EXPECT_EQ(tot_logs, total);
        const std::string current = ", curr_logs " + std::to_string(logs);
        EXPECT_TRUE(logs == 0 || printed.at(1).ends_with(current)) << printed[1];
    }
}

TEST_F(Housekeeping, AnnouncesAForcedUpdateOncePerFileAndTheDailyOneOncePerDate) {
    const std::string line = "(I) time over!! start update service hhmi(";
    set_daily_time("0000");
    for (int i = 0; i < 2; ++i) { // the file comes first
        a.write_file("trigger", "now\n");
        const std::string found = ">> Check OK, [" + trigger + "] ..";
        EXPECT_EQ(run_passes(1), (texts{found, "(I) start forced update service"}));
        EXPECT_FALSE(std::filesystem::exists(trigger));
    }
    for (const char* zone : {"EAST-14", "WEST+12", "EAST-14"}) { // never the same date
        setenv("TZ", zone, 1);
        tzset();
        EXPECT_EQ(run_passes(3), texts{line + "0000)"}) << zone;
    }
    unsetenv("TZ");
    tzset();
    for (const char* never : {"2400", "----", "", "9"}) {
        set_daily_time(never);
        EXPECT_EQ(run_passes(2), texts()) << never;
    }
    const std::string hhmi = local_text("%H%M", std::time(nullptr));
    set_daily_time(hhmi.c_str()); // a restart forgets the day
    EXPECT_EQ(run_passes(2), texts{line + hhmi + ")"});
}

TEST_F(Housekeeping, StartsOneUpdateAtATime) {
    const full_listener listener; // the upload hangs in its connection
    set_server_address("127.0.0.1", listener.port());
    daily_update_yn = true;
    for (int i = 0; i < 2; ++i) {
        a.write_file("trigger", "now\n");
        st_log_pass();
    }
    EXPECT_EQ(a.count_log("(I) run shell-command get service list starting.."), 1u);
    EXPECT_TRUE(std::filesystem::exists(a.path("trigger"))); // kept for afterwards
    running = 0;
    th_cancel_shcmd_service_list();
    th_join_shcmd_service_list();
    EXPECT_EQ(messages(a.log()).back(), "(I) completed join shcmd_service_list.");
    EXPECT_EQ(a.count_log("connection fail") + a.count_log("End Thread"),
              0u); // and no retrieval at the end of the daemon
}

} // namespace
