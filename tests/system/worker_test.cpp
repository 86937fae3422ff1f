// Killed and idle workers, found by the sweep and the watchdog of the real program; the console plays the tracer and
// the log parser.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>

#include "checks.h"
#include "hash.h"

namespace {

using namespace test_support;

program_result console(const agent& a, texts words) {
    words.insert(words.begin(), KESSCTL_PROGRAM);
    return run_program(words, a.variables);
}

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

bool has_line(const std::string& text, const std::string& name, const std::string& value) {
    const std::size_t at = text.find("    " + name + " ");
    return at != text.npos && text.substr(at, text.find('\n', at) - at).ends_with(" : " + value);
}

TEST(Workers, SweepFindsAKilledOne) {
    agent a;
    a.set("PTRC_HASH", "TRC_STS_CHECK_PERIOD", 1);
    start_running(a);
    process worker({"/bin/sleep", "100"}, {});
    const std::string pid = std::to_string(worker.pid());
    ASSERT_TRUE(wait_until([&] { return status_of(worker.pid(), "Name") == "sleep"; }));
    const program_result put =
        console(a, {"put-trace", "--pid", pid, "--state", "h", "--alive", "0", "--threads", "1"});
    ASSERT_EQ(put.status, 0) << put.err;
    const PTRC_HASH_ARR* entry = find_entry(*a.traces(), worker.pid(), 0);
    const PTRC_HASH_ARR* thread = find_entry(*a.traces(), worker.pid(), 1);
    ASSERT_TRUE(entry != nullptr && thread != nullptr);
    EXPECT_TRUE(wait_until([&] { return entry->isalive == 1 && thread->isalive == 1; }));
    kill(worker.pid(), SIGKILL);
    EXPECT_EQ(worker.wait_exit(), 128 + SIGKILL);
    EXPECT_TRUE(a.wait_log("@@@ process down: sleep(" + pid + ")"));
    EXPECT_TRUE(wait_until([&] { return entry->isalive == 0 && thread->isalive == 0; }));
}

TEST(Workers, WatchdogFindsAnIdleOne) {
    agent a;
    a.set("KESSARD", "WORKER_CHECK_INTERVAL", 1);
    a.set("KESSARD", "WORKER_MODE", "PROCESS");
    start_running(a);
    EXPECT_EQ(console(a, {"show-events"}).status, 2); // there is no queue before the watchdog's first pass
    ASSERT_EQ(console(a, {"put-trace", "--name", "idler", "--idle", "1000"}).status, 0);
    ASSERT_EQ(console(a, {"put-trace", "--pid", "4194399", "--name", "busy"}).status, 0);
    ASSERT_TRUE(a.wait_log("[CHECK_WORKER] send_event [idler, pid:4194305, tid:0] [ret:1]", 2));
    const program_result peeked = console(a, {"show-events", "--peek", "--count", "1"});
    EXPECT_EQ(peeked.status, 0) << peeked.err;
    EXPECT_TRUE(peeked.out.starts_with("slot 1\n")) << peeked.out;
    const program_result shown = console(a, {"show-events", "--count", "1"});
    EXPECT_EQ(shown.out, peeked.out);
    EXPECT_TRUE(has_line(shown.out, "evt_id", "1710")) << shown.out;
    EXPECT_TRUE(has_line(shown.out, "server_id", "idler"));
    EXPECT_TRUE(has_line(shown.out, "tr_section", "T"));
    EXPECT_NE(shown.out.find("Process not running. [idler / pid:4194305 / tid:0] (Last access tm : "), shown.out.npos);
    const program_result followed = console(a, {"show-events", "--follow", "--count", "3"}); // slots 2 to 4
    EXPECT_TRUE(in_order(followed.out, {"slot 2\n", "slot 3\n", "slot 4\n"}));
    EXPECT_EQ(a.count_log("send_event [busy"), 0u);

    PTRC_HASH_TBL* table = a.traces();
    table->used.top = 10001;
    EXPECT_TRUE(a.wait_log("<!> PTRC hash range error (A:2/T:10001/10000)n"));
    EXPECT_EQ(console(a, {"put-trace"}).status, 2);
    EXPECT_EQ(console(a, {"put-trace", "--clear"}).status, 0);
    EXPECT_EQ(table->used.top, 0u);
    a.parse_log_que()->que[0].info.rear = -1;
    const program_result corrupt = console(a, {"show-events"});
    EXPECT_EQ(corrupt.status, 2);
    EXPECT_NE(corrupt.err.find("out of range"), corrupt.err.npos);
}

TEST(Workers, ConsoleKeepsTheTraceTableInOrder) {
    agent a;
    start_running(a);
    EXPECT_EQ(console(a, {"put-trace", "--count", "4000", "--threads", "1"}).status, 0);
    EXPECT_EQ(console(a, {"put-trace", "--count", "5000"}).status, 0); // 4,000 of them are renewed
    PTRC_HASH_TBL& table = *a.traces();
    EXPECT_EQ(table.used.top, 9000u);
    const program_result full = console(a, {"put-trace", "--count", "10000"});
    EXPECT_EQ(full.status, 1);
    EXPECT_TRUE(full.out.ends_with("the table is full: 4000 entries did not fit\n"))
        << full.out.substr(full.out.size() - 80);
    EXPECT_EQ(table.alloc_cnt, 10000u);
    EXPECT_EQ(table.used.top, 10000u);
    EXPECT_EQ(table.available.top, 0u);
    for (int i = 0; i < 6000; ++i) {
        ASSERT_NE(find_entry(table, 4194305 + i, 0), nullptr) << i;
        ASSERT_EQ(find_entry(table, 4194305 + i, 1) != nullptr, i < 4000) << i;
    }
    for (int& first : table.h_idx)
        first = 9999;
    table.h_arr[9999].next_idx = 9999; // a chain that runs into itself
    EXPECT_EQ(console(a, {"put-trace", "--pid", "4194304", "--name", "new"}).status, 2);
    EXPECT_EQ(console(a, {"put-trace", "--pid", "4194304", "--cfg", "/nowhere"}).status, 2);
}

TEST(Workers, ConsoleSaysWhatDidNotFitTheNotificationQueue) {
    agent a;
    start_running(a);
    a.signal(SIGSTOP); // the queue's reader
    NOTI_SEND_QUE* queue = a.noti_que();
    const int rear = queue->info.rear;
    const program_result put = console(a, {"put-notification", "--count", "32770"});
    EXPECT_EQ(put.status, 1);
    EXPECT_EQ(put.out, "32767 records put, 3 did not fit\n");
    EXPECT_EQ(queue->info.rear, (rear + 32767) % 32768);
    EXPECT_EQ(std::string(queue->data[(rear + 2) % 32768].act_svc_dtl.call_seq), "000002");
    queue->info.front = 40000;
    EXPECT_EQ(console(a, {"put-notification"}).status, 2);
    EXPECT_EQ(console(a, {"put-notification", "--service", "longer_than_the_field"}).status, 2);
    a.signal(SIGCONT);
}

} // namespace
