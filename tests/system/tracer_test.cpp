// The tracers' side of a running agent: the example of the documentation, and idle workers; there
// the console plays the tracer and the log parser.
#include <regex>

#include "checks.h"
#include "hash.h"
#include "server/stand_in.h"

namespace {

using namespace test_support;

// The entry of a key, found the way a tracer finds it; null when there is none.
const PTRC_HASH_ARR* find_entry(const PTRC_HASH_TBL& table, int pid, unsigned long tid) {
    char key[25] = "";
    std::snprintf(key, 9, "%d", pid);
    std::snprintf(key + 9, 16, "%015lu", tid);
    for (int slot = table.h_idx[agt::get_hidx(key, sizeof key, PTRC_HASH_BUCKETS - 1)]; slot != -1;
         slot = table.h_arr[slot].next_idx)
        if (std::memcmp(table.h_arr[slot].param.pid, key, sizeof key) == 0)
            return &table.h_arr[slot].param;
    return nullptr;
}

TEST(Workers, WatchdogFindsAnIdleOne) {
    agent a;
    a.set("KESSARD", "WORKER_CHECK_INTERVAL", 1);
    a.set("KESSARD", "WORKER_MODE", "PROCESS");
    start_running(a);
    EXPECT_EQ(a.console({"show-events"}).status, 2); // there is no queue before the first pass
    ASSERT_EQ(a.console({"put-trace", "--name", "idler", "--idle", "1000"}).status, 0);
    ASSERT_EQ(a.console({"put-trace", "--pid", "4194399", "--name", "busy"}).status, 0);
    ASSERT_TRUE(a.wait_log("[CHECK_WORKER] send_event [idler, pid:4194305, tid:0] [ret:1]", 2));
    const std::string peeked = a.run({"show-events", "--peek", "--count", "1"});
    EXPECT_EQ(a.run({"show-events", "--count", "1"}), peeked);
    EXPECT_TRUE(peeked.starts_with("0\nslot 1\n")) << peeked;
    for (const char* line : {"tr_section +: T\n", "server_id +: idler\n", "evt_id +: 1710\n"})
        EXPECT_TRUE(std::regex_search(peeked, std::regex(line))) << line << peeked;
    EXPECT_TRUE(in_order(peeked, {"Process not running. [idler / pid:4194305 / tid:0] (Last acc"}));
    EXPECT_TRUE(in_order(a.console({"show-events", "--follow", "--count", "3"}).out,
                         {"slot 2\n", "slot 3\n", "slot 4\n"}));
    EXPECT_EQ(a.count_log("send_event [busy"), 0u);

    PTRC_HASH_TBL* table = a.traces();
    table->used.top = 10001;
    EXPECT_TRUE(a.wait_log("<!> PTRC hash range error (A:2/T:10001/10000)n"));
    EXPECT_EQ(a.console({"put-trace"}).status, 2);
    EXPECT_EQ(a.console({"put-trace", "--clear"}).status, 0);
    EXPECT_EQ(table->used.top, 0u);
    a.parse_log_que()->que[0].info.rear = -1;
    EXPECT_TRUE(in_order(a.run({"show-events"}), {"2\n", "out of range"}));
}

TEST(Workers, ConsoleSaysWhatDoesNotFit) {
    agent a;
    start_running(a);
    EXPECT_EQ(a.console({"put-trace", "--count", "4000", "--threads", "1"}).status, 0);
    EXPECT_TRUE(in_order(a.run({"put-trace", "--count", "10000"}), // 4,000 of them are renewed
                         {"1\n", "the table is full: 4000 entries did not fit\n"}));
    const PTRC_HASH_TBL& table = *a.traces();
    EXPECT_EQ(table.alloc_cnt + table.used.top, 20000u);
    EXPECT_NE(find_entry(table, 4194305 + 3999, 1), nullptr);
    EXPECT_NE(find_entry(table, 4194305 + 5999, 0), nullptr);
    a.signal(SIGSTOP); // the reader of the notification queue
    ASSERT_EQ(waitpid(a.pid(), nullptr, WUNTRACED), a.pid());
    const int rear = a.noti_que()->info.rear;
    EXPECT_EQ(a.run({"put-notification", "--count", "32770"}),
              "1\n32767 records put, 3 did not fit\n");
    EXPECT_EQ(a.noti_que()->info.rear, (rear + 32767) % 32768);
    a.noti_que()->info.front = 40000;
    EXPECT_EQ(a.console({"put-notification"}).status, 2);
}

int run_tracer(const agent& a) {
    texts words = {TRACER_PROGRAM};
    for (const key_t key : {a.shm_key("TRAN_LOGF_QUE_INFO_SHMKEY"),
                            a.shm_key("NOTI_SEND_QUE_SHMKEY"), a.sem_key("NOTI_SEND_QUE_SEMKEY")})
        words.push_back(std::to_string(key));
    words.insert(words.end(), {"TRACED", "4321"});
    return run_program(words).status;
}

TEST(TracerExample, ReportsToTheServerWhileTracingIsOn) {
    kessctl::stand_in server;
    ASSERT_EQ(server.start(), "");
    agent a;
    a.set("TRAN_SERVER", "CMD_PORT", server.port());
    a.set("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", 3000);
    EXPECT_EQ(run_tracer(a), 1); // no shared memory yet
    start_running(a);
    EXPECT_EQ(run_tracer(a), 2);
    EXPECT_EQ(a.noti_que()->info.rear, 0);

    a.settings()->magic_code = TRACE_ON_MAGIC_CODE;
    EXPECT_EQ(run_tracer(a), 0);
    const auto message = server.wait_for(MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ).value();
    const auto& body = message.frame.body.notify_active_service_detail_req;
    EXPECT_STREQ(body.element_num, "001");
    EXPECT_STREQ(body.elements[0].service_id, "TRACED          ");
    EXPECT_STREQ(body.elements[0].svc_elapsed_time, "0004321");
    EXPECT_STREQ(body.elements[0].call_seq, "000001");
}

} // namespace
