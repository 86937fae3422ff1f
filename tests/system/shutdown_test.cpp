// The end of the real program: in order and soon, whatever it is doing, and what it does to its registry row.
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <csignal>
#include <cstring>

#include "checks.h"
#include "command_client.h"
#include "frame.h"
#include "full_listener.h"
#include "service_file.h"
#include "stand_in.h"

namespace {

using namespace test_support;
using kessctl::stand_in_options;
using kessctl::start_frame;

constexpr int END_LIMIT_MS = 8000;
constexpr char CLEAR[] = "[ kessard ] end.. resource clear.";
constexpr char COMPLETE[] = "[ kessard ] end.. complete.";

class Shutdown : public testing::Test {
  protected:
    kessctl::stand_in server;
    agent daemon;
    kessctl::command_client client;

    Shutdown() {
        EXPECT_EQ(server.start(), "");
        daemon.set("TRAN_SERVER", "CMD_PORT", server.port());
        daemon.set("SERVICE_HASH", "DAILY_UPDATE_HHMI", "----");
        server.set_services({kessctl::make_service("ONE")});
    }
    void start(const texts& options = {}) {
        start_running(daemon, options);
        ASSERT_TRUE(client.connect("127.0.0.1", daemon.port()));
    }
    void mute(char type) {
        server.change([type](stand_in_options& options) { options.faults[type].silent = true; });
    }
    // Ends the daemon; what else it logs depends on what it was doing.
    void expect_orderly_end(int signo = SIGTERM) {
        daemon.mark_log();
        daemon.signal(signo);
        EXPECT_EQ(daemon.wait_exit(END_LIMIT_MS), 0);
        const std::string name = signo == SIGINT ? "SIGINT" : "SIGTERM";
        EXPECT_TRUE(in_order(
            daemon, {">> received " + name + " signal to terminate!\n", "<!> termination start\n", CLEAR, COMPLETE}));
        EXPECT_EQ(messages(daemon.log()).back(), COMPLETE);
        EXPECT_EQ(daemon.count_log("cannot"), 0u);
        EXPECT_TRUE(daemon.running().empty());
    }
};

TEST_F(Shutdown, GoesThroughItsStepsInOrder) {
    start();
    TCP_CMD_MSG answer;
    EXPECT_TRUE(server.wait_for('H') && client.request(start_frame('7'), &answer));
    EXPECT_TRUE(daemon.wait_log("device info send complete"));
    for (int i = 0; i < 5; ++i)
        daemon.signal(SIGCHLD); // does not end it
    EXPECT_TRUE(wait_until([&] {
        return daemon.out().find("(" + std::to_string(daemon.pid()) + ") recive sinal... SIGCHLD(-1)\n") !=
               std::string::npos;
    }));
    EXPECT_TRUE(client.request(start_frame('7'), &answer));
    EXPECT_TRUE(daemon.wait_log("(i) -> RESULT_CODE", 2));
    daemon.mark_log();
    EXPECT_EQ(daemon.stop(END_LIMIT_MS), 0);
    const texts wanted = {">> received SIGTERM signal to terminate!",
                          "<!> termination start",
                          "<!> interrupted system call",
                          CLEAR,
                          "(I) completed join st_log.",
                          "(I) completed join health_check.",
                          COMPLETE};
    EXPECT_EQ(messages(daemon.log()), wanted);
    EXPECT_TRUE(client.wait_closed()) << client.error();
    EXPECT_TRUE(server.wait_open_connections(0));
}

TEST_F(Shutdown, TakesSigintAndASecondSignal) {
    start();
    expect_orderly_end(SIGINT);
    daemon.mark_log();
    start();
    daemon.signal(SIGTERM);
    EXPECT_TRUE(daemon.wait_log(CLEAR));
    daemon.signal(SIGINT);
    EXPECT_EQ(daemon.wait_exit(END_LIMIT_MS), 0);
    EXPECT_EQ(messages(daemon.log()).back(), COMPLETE);
}

TEST_F(Shutdown, DuringAStartThatWaitsForTheServer) {
    mute('4');
    daemon.start();
    EXPECT_TRUE(server.wait_for('4'));
    expect_orderly_end();
}

TEST_F(Shutdown, DuringAStartThatCannotConnect) {
    full_listener full; // accepts nobody
    full.fill_up();
    daemon.set("TRAN_SERVER", "CMD_PORT", full.port());
    daemon.set("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", "1000");
    daemon.start();
    EXPECT_TRUE(daemon.wait_log("Active Service Detail Monitoring ON"));
    expect_orderly_end();
}

TEST_F(Shutdown, DuringAStartThatWaitsForTheTable) {
    const int semid = semget(daemon.sem_key("SVC_HASH_TBL_SEMKEY"), 1, IPC_CREAT | 0666); // value 0: held
    daemon.start();
    EXPECT_TRUE(wait_until([&] { return semctl(semid, 0, GETNCNT) == 1; }));
    expect_orderly_end();
    EXPECT_EQ(semctl(semid, 0, GETVAL), 0);
    EXPECT_EQ(shmget(daemon.shm_key("SVC_HASH_TBL_SHMKEY"), 0, 0), -1); // the next start makes a table in order
}

TEST_F(Shutdown, DuringARetrieval) {
    start();
    EXPECT_TRUE(server.wait_for('6'));
    mute('6');
    server.set_services(std::vector<SERVICE_ELEMENT>(20, kessctl::make_service("ONE")));
    server.forget_messages();
    TCP_CMD_MSG answer;
    EXPECT_TRUE(client.request(start_frame('2'), &answer) && server.wait_for('6'));
    expect_orderly_end();
    EXPECT_EQ(daemon.count_log("(I) completed join get_service_list.\n"), 1u);
    EXPECT_EQ(semctl(daemon.sem_id("SVC_HASH_TBL_SEMKEY"), 0, GETVAL), 1);
}

TEST_F(Shutdown, WithAStalledFrameAndAHeldTable) {
    start();
    const TCP_CMD_MSG frame = start_frame('7');
    EXPECT_TRUE(client.send_bytes(&frame, 700));
    expect_orderly_end();

    start();
    const int semid = daemon.sem_id("SVC_HASH_TBL_SEMKEY");
    sembuf take = {0, -1, SEM_UNDO};
    ASSERT_EQ(semop(semid, &take, 1), 0);
    EXPECT_TRUE(client.send(start_frame('B')));
    EXPECT_TRUE(wait_until([&] { return semctl(semid, 0, GETNCNT) == 1; }));
    expect_orderly_end();
}

TEST_F(Shutdown, MarksNoRowButItsOwn) {
    const struct {
        texts options;
        int own_row;          // the row that belongs to the daemon
        std::string mismatch; // what the log has in the place of the daemon's pid; empty: it marks its row
    } cases[] = {
        {{}, 0, "no line"},       {{"-i", "-1"}, 0, "no line"}, {{"-i", "3"}, 3, ""},           {{"-i", "67"}, 67, ""},
        {{"-i", "3"}, 4, "7003"}, {{"-i", "68"}, 0, "-1"},      {{"-i", "2147483647"}, 0, "-1"}};
    mute('H'); // a report waits for its answer meanwhile
    for (const auto& one : cases) {
        daemon.mark_log();
        start(one.options);
        const std::string pid = std::to_string(daemon.pid());
        PROCESS_INFO* rows = daemon.segment()->proc_info;
        PROCESS_INFO wanted[PROCESS_INFO_MAX];
        for (int i = 0; i < PROCESS_INFO_MAX; ++i) {
            std::memset(&rows[i], 'r', sizeof rows[i]);
            rows[i].proc_pid = i == one.own_row ? daemon.pid() : 7000 + i;
        }
        std::memcpy(wanted, rows, sizeof wanted);
        std::string line = "(I) pid : " + pid + ",  cur_sts set PROCESS_DEACT... ok";
        if (one.mismatch.empty())
            wanted[one.own_row].cur_sts = 0;
        else
            line = one.mismatch == "no line" ? "(I) completed join health_check."
                                             : "<!> proc_info pid mismatch (" + one.mismatch + " <> " + pid +
                                                   "), process_idx : " + one.options[1];
        expect_orderly_end();
        EXPECT_EQ(std::memcmp(rows, wanted, sizeof wanted), 0);
        EXPECT_EQ(messages(daemon.log()).end()[-2], line);
    }
}

} // namespace
