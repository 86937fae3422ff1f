// The end of the real program: in order and soon whatever it does, and what becomes of its row.
#include "full_listener.h"
#include "sem.h"
#include "served_agent.h"

namespace {

using namespace test_support;
using kessctl::start_frame;

constexpr char CLEAR[] = "[ kessard ] end.. resource clear.";

class Shutdown : public served_agent {
  protected:
    void mute(char type) { set_fault(type, {.silent = true}); }
    int table_semaphore(int what) const { return semctl(a.sem_id("SVC_HASH_TBL_SEMKEY"), 0, what); }
    // Ends the daemon; what else it logs depends on what it was doing.
    void expect_orderly_end(int signo = SIGTERM) {
        a.mark_log();
        const std::string name = signo == SIGINT ? "SIGINT" : "SIGTERM";
        expect_end(signo);
        EXPECT_TRUE(in_order(a, {">> received " + name + " signal to terminate!\n",
                                 "<!> termination start\n", CLEAR, COMPLETE}));
        EXPECT_TRUE(a.running().empty());
        for (const char* cut : {" error", " fail", THREAD_END}) // what the end cuts is no fault
            EXPECT_EQ(a.count_log(cut), 0u) << cut;
    }
};

TEST_F(Shutdown, GoesThroughItsStepsInOrder) {
    start();
    for (int i = 0; i < 5; ++i)
        a.signal(SIGCHLD); // does not end it
    const std::string received = "(" + std::to_string(a.pid()) + ") recive sinal... SIGCHLD(-1)\n";
    EXPECT_TRUE(wait_until([&] { return a.out().find(received) != std::string::npos; }));
    EXPECT_TRUE(ask(start_frame('7')) && a.wait_log("(i) -> RESULT_CODE") &&
                a.wait_log("device info send complete"));
    a.mark_log();
    EXPECT_EQ(a.stop(END_LIMIT_MS), 0);
    const texts wanted = {">> received SIGTERM signal to terminate!",
                          "<!> termination start",
                          "<!> interrupted system call",
                          CLEAR,
                          "(I) completed join st_log.",
                          "(I) completed join health_check.",
                          COMPLETE};
    EXPECT_EQ(messages(a.log()), wanted);
    EXPECT_TRUE(client.wait_closed()) << client.error();
    EXPECT_TRUE(server.wait_open_connections(0));
}

TEST_F(Shutdown, TakesSigintAndASecondSignal) {
    start();
    expect_orderly_end(SIGINT);
    start();
    a.signal(SIGTERM);
    EXPECT_TRUE(a.wait_log(CLEAR));
    expect_end(SIGINT);
}

TEST_F(Shutdown, DuringAStartThatWaitsForTheServer) {
    mute('4');
    a.write_file("svc_update", "");
    a.start();
    EXPECT_TRUE(server.wait_for('4'));
    expect_orderly_end();
    EXPECT_TRUE(std::filesystem::exists(a.path("svc_update"))); // no thread took a step
    EXPECT_EQ(server.count('H') + a.count_log("statics log print start"), 0u);

    const full_listener full; // accepts nobody
    a.set("TRAN_SERVER", "CMD_PORT", full.port());
    a.set("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", "1000");
    a.mark_log();
    a.start();
    EXPECT_TRUE(a.wait_log("Active Service Detail Monitoring ON"));
    expect_orderly_end();
}

TEST_F(Shutdown, DuringAStartThatWaitsForTheTable) {
    semget(a.sem_key("SVC_HASH_TBL_SEMKEY"), 1, IPC_CREAT | 0666); // value 0: held
    a.start();
    EXPECT_TRUE(wait_until([&] { return table_semaphore(GETNCNT) == 1; }));
    expect_orderly_end();
    EXPECT_EQ(table_semaphore(GETVAL), 0);
    EXPECT_EQ(a.count_log("(i) svc_hash_tbl is not initialised and is removed again.[key:0x"), 1u);
    EXPECT_EQ(a.count_log("svc_hash_tbl create complete."), 0u);
    EXPECT_EQ(a.shm_id("SVC_HASH_TBL_SHMKEY"), -1); // the next start makes a table in order
}

TEST_F(Shutdown, DuringARetrieval) {
    start();
    mute('6');
    server.set_services(services(20));
    EXPECT_TRUE(renew() && server.wait_for('6', 2));
    expect_orderly_end();
    EXPECT_EQ(a.count_log("(I) completed join get_service_list.\n"), 1u);
    EXPECT_EQ(table_semaphore(GETVAL), 1);
}

TEST_F(Shutdown, WithAStalledFrameAndAHeldTable) {
    start();
    const TCP_CMD_MSG frame = start_frame('7');
    EXPECT_TRUE(client.send_bytes(&frame, 700));
    expect_orderly_end();

    start();
    const agt::sem_hold hold(a.sem_id("SVC_HASH_TBL_SEMKEY"), 0);
    EXPECT_TRUE(client.send(start_frame('B')));
    EXPECT_TRUE(wait_until([&] { return table_semaphore(GETNCNT) == 1; }));
    EXPECT_EQ(a.count_log("[[ SET_MODIFIED_SERVICE_REQ ]]"), 1u); // before anything is changed
    expect_orderly_end();
}

TEST_F(Shutdown, MarksNoRowButItsOwn) {
    // Options, the daemon's row, what the log has in the place of its pid; empty: it marks the row.
    const std::tuple<texts, int, std::string> cases[] = {{{}, 0, "no line"},
                                                         {{"-i", "-1"}, 0, "no line"},
                                                         {{"-i", "3"}, 3, ""},
                                                         {{"-i", "67"}, 67, ""},
                                                         {{"-i", "3"}, 4, "7003"},
                                                         {{"-i", "68"}, 0, "-1"},
                                                         {{"-i", "2147483647"}, 0, "-1"}};
    mute('H'); // a report waits for its answer meanwhile
    for (const auto& [options, own_row, mismatch] : cases) {
        a.mark_log();
        start(options);
        const std::string pid = std::to_string(a.pid());
        PROCESS_INFO* rows = a.segment()->proc_info;
        PROCESS_INFO wanted[PROCESS_INFO_MAX];
        for (int i = 0; i < PROCESS_INFO_MAX; ++i) {
            std::memset(&rows[i], 'r', sizeof rows[i]);
            rows[i].proc_pid = i == own_row ? a.pid() : 7000 + i;
        }
        std::memcpy(wanted, rows, sizeof wanted);
        std::string line = "(I) pid : " + pid + ",  cur_sts set PROCESS_DEACT... ok";
        if (mismatch.empty())
            wanted[own_row].cur_sts = 0;
        else
            line = mismatch == "no line" ? "(I) completed join health_check."
                                         : "<!> proc_info pid mismatch (" + mismatch + " <> " +
                                               pid + "), process_idx : " + options[1];
        expect_orderly_end();
        EXPECT_EQ(std::memcmp(rows, wanted, sizeof wanted), 0);
        EXPECT_EQ(messages(a.log()).end()[-2], line);
    }
}

TEST_F(Shutdown, TakesASignalWhileRequestsPourIn) {
    start();
    std::atomic<bool> over{false};
    std::thread flood([&] {
        kessctl::command_client clients[4]; // one of them always has a request there
        std::size_t left[4] = {};           // bytes of answers to come
        const std::vector<SERVICE_ELEMENT> some = services(8);
        const std::vector<TCP_CMD_MSG> requests(32,
                                                kessctl::modified_services_frame(some.data(), 8));
        char taken[32 * TCP_CMD_MSG_SIZE];
        for (auto& one : clients)
            EXPECT_TRUE(one.connect("127.0.0.1", a.port()));
        for (std::size_t i = 0; !over; i = (i + 1) % 4) {
            const ssize_t got = recv(clients[i].fd(), taken, sizeof taken, MSG_DONTWAIT);
            left[i] -= got > 0 ? static_cast<std::size_t>(got) : 0;
            if (left[i] < sizeof taken && clients[i].send_bytes(requests.data(), sizeof taken))
                left[i] += sizeof taken;
        }
    });
    EXPECT_TRUE(a.wait_log("(i) -> RESULT_CODE", 500));
    expect_orderly_end();
    over = true;
    flood.join();
}

} // namespace
