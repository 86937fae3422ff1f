// Housekeeping passes: the statistics, their countdowns, the reset in silence, the update triggers.
#include <sys/eventfd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "client.h"
#include "full_listener.h"
#include "get_service_list.h"
#include "process_globals.h"
#include "settings.h"
#include "shcmd_service_list.h"
#include "st_log.h"
#include "trace_table.h"

namespace {

using namespace kessard;
using namespace test_support;

const std::string STATISTICS_LINE(76, '-');
constexpr char STARTED[] = "(I) run shell-command get service list starting..";

class Statistics : public testing::Test {
  protected:
    test_log log;
    trace_table table;
    std::string trigger = log.directory() + "/trigger";
    agt::unique_fd ended{eventfd(1, EFD_CLOEXEC)}; // makes the daily trigger's pause short

    Statistics() {
        running = 1;
        print_time = 0;
        clear_time = 0;
        trc_sts_check_period = 0;
        tot_logs = 0;
        client_list = {};
        daily_update_yn = false;
        std::snprintf(svc_update_chk_fn, sizeof svc_update_chk_fn, "%s", trigger.c_str());
        set_daily_time("----");
        set_server_address("127.0.0.1", 1); // nobody there
        agt::set_cancel_fd(ended.get());
    }
    ~Statistics() override { agt::set_cancel_fd(-1); }

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

TEST_F(Statistics, PrintsEveryPrintTimePasses) {
    print_time = 10;
    client_list.client_num = 2;
    client_list.client[0].send_logs = 7;
    client_list.client[1].send_logs = -1;
    start_st_log_passes();
    EXPECT_EQ(run_passes(9, 3), texts());
    const texts head = {STATISTICS_LINE, "clients 2/5 , total_logs 30, curr_logs 30",
                        "^^^ client send logs statistics ^^^", " > 0 : 7", " > 1 : -1"};
    EXPECT_EQ(run_passes(1, 3), head);
    client_list.client_num = 0;
    EXPECT_EQ(run_passes(9, 1), texts());
    EXPECT_EQ(run_passes(1), (texts{STATISTICS_LINE, "clients 0/5 , total_logs 39, curr_logs 9",
                                    "^^^ client send logs statistics ^^^"}));
}

TEST_F(Statistics, PrintsEveryPassOrNever) {
    for (const int time : {0, -1, -10}) {
        print_time = time;
        start_st_log_passes();
        EXPECT_EQ(run_passes(20), texts());
    }
    print_time = 1;
    start_st_log_passes();
    EXPECT_EQ(run_passes(3).size(), 9u);
}

TEST_F(Statistics, SweepsEveryPeriod) {
    const struct {
        int period;
        std::size_t sweeps; // in seven passes
    } cases[] = {{3, 2}, {1, 7}, {7, 1}, {8, 0}, {0, 0}, {-3, 0}};
    for (const auto& one : cases) {
        trc_sts_check_period = one.period;
        start_st_log_passes();
        run_passes(7);
        EXPECT_EQ(log.count("##### ptrc hash table"), one.sweeps) << one.period;
    }
}

TEST_F(Statistics, ClearsTheCountersOnceInASilence) {
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
    tot_logs = 9;
    run_passes(1);
    for (const int never : {0, -1}) {
        clear_time = never;
        run_passes(10);
        EXPECT_EQ(tot_logs, 9);
    }
}

TEST_F(Statistics, AnnouncesAForcedUpdateOncePerFile) {
    start_st_log_passes();
    for (int i = 0; i < 2; ++i) {
        make_trigger();
        EXPECT_EQ(run_passes(3), (texts{">> Check OK, [" + trigger + "] ..", "(I) start forced update service"}));
        EXPECT_FALSE(std::filesystem::exists(trigger));
    }
    std::filesystem::create_directory(trigger); // cannot be deleted this way
    EXPECT_EQ(run_passes(3).size(), 6u);
}

TEST_F(Statistics, AnnouncesTheDailyUpdateOncePerDay) {
    const std::string line = "(I) time over!! start update service hhmi(0000)";
    set_daily_time("0000");
    start_st_log_passes();
    make_trigger();
    EXPECT_EQ(run_passes(1).size(), 2u); // the file comes first
    EXPECT_EQ(run_passes(5), texts{line});
    start_st_log_passes(); // a restart forgets the day
    EXPECT_EQ(run_passes(5), texts{line});
}

TEST_F(Statistics, AnnouncesTheDailyUpdateOnEveryDate) {
    set_daily_time("0000");
    start_st_log_passes();
    for (const char* zone : {"EAST-14", "WEST+12", "EAST-14"}) { // never the same date
        setenv("TZ", zone, 1);
        tzset();
        run_passes(3);
        EXPECT_EQ(log.count("(I) time over!! start update service hhmi(0000)"), 1u) << zone;
    }
    unsetenv("TZ");
    tzset();
}

TEST_F(Statistics, WaitsForTheDailyTime) {
    for (const char* never : {"2400", "----", "", "9"}) {
        set_daily_time(never);
        start_st_log_passes();
        EXPECT_EQ(run_passes(2), texts()) << never;
    }
    const time_t now = std::time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    char hhmi[8];
    std::strftime(hhmi, sizeof hhmi, "%H%M", &local);
    set_daily_time(hhmi);
    start_st_log_passes();
    EXPECT_EQ(run_passes(2), texts{std::string("(I) time over!! start update service hhmi(") + hhmi + ")"});
}

TEST_F(Statistics, StartsAnUpdateOnlyWhenToldTo) {
    start_st_log_passes();
    make_trigger();
    run_passes(1);
    EXPECT_EQ(log.count(STARTED), 0u);
    daily_update_yn = true;
    make_trigger();
    run_passes(1);
    EXPECT_EQ(log.count(STARTED), 1u);
    th_join_shcmd_service_list();
    th_join_get_service_list();
    set_daily_time("0000");
    run_passes(2);
    EXPECT_EQ(log.count(STARTED), 1u);
    th_join_shcmd_service_list();
    th_join_get_service_list();
    EXPECT_TRUE(in_order(log.text(), {"(I) time over!!", STARTED, "<!> server connection fail. (ip 127.0.0.1, port 1)",
                                      "(I) End Thread-function(cmd_service_list)...",
                                      "(i) get service list thread is starting.."}));
}

TEST_F(Statistics, StartsOneUpdateAtATime) {
    full_listener listener; // the upload hangs in its connection
    listener.fill_up();
    set_server_address("127.0.0.1", listener.port());
    daily_update_yn = true;
    start_st_log_passes();
    make_trigger();
    run_passes(1);
    make_trigger();
    st_log_pass();
    EXPECT_EQ(log.count(STARTED), 1u);
    EXPECT_EQ(log.count("<!> update service is already running now.. skip action ."), 1u);
    EXPECT_TRUE(shcmd_service_list_running());
    running = 0;
    th_cancel_shcmd_service_list();
    th_join_shcmd_service_list();
    EXPECT_EQ(log.lines().back(), "(I) completed join shcmd_service_list.");
    EXPECT_EQ(log.count("End Thread-function"), 0u); // and no retrieval at the end of the daemon
    EXPECT_FALSE(shcmd_service_list_running());
}

} // namespace
