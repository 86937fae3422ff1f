// Retrieval of the service list through the real program: lists of every size, servers of every kind, and that nothing
// is left behind.
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <future>

#include "checks.h"
#include "command_client.h"
#include "field.h"
#include "frame.h"
#include "service_file.h"
#include "stand_in.h"

namespace {

using namespace test_support;
using kessctl::answer_fault;
using kessctl::stand_in_options;
using kessctl::start_frame;

constexpr char THREAD_END[] = "### get_service_list() ### thread function END...";

std::vector<SERVICE_ELEMENT> services(int count) {
    std::vector<SERVICE_ELEMENT> made;
    for (int i = 0; i < count; ++i)
        made.push_back(kessctl::make_service("SERVICE" + std::to_string(i)));
    return made;
}

class ServiceList : public testing::Test {
  protected:
    kessctl::stand_in server;
    agent daemon;
    kessctl::command_client client;

    ServiceList() {
        EXPECT_EQ(server.start(), "");
        daemon.set("TRAN_SERVER", "CMD_PORT", server.port());
    }
    void start() {
        start_running(daemon);
        ASSERT_TRUE(client.connect("127.0.0.1", daemon.port()));
        daemon.mark_log();
    }
    bool change(const TCP_CMD_MSG& request) {
        TCP_CMD_MSG answer;
        return client.request(request, &answer);
    }
    bool renew() { return change(start_frame('2')); }
    void renew_and_wait() {
        daemon.mark_log();
        EXPECT_TRUE(renew()) << client.error();
        EXPECT_TRUE(daemon.wait_log(THREAD_END));
    }
    // Slot 9999 holds the first service and so on.
    void expect_loaded(int count) {
        SVC_HASH_TBL& table = *daemon.services();
        EXPECT_EQ(table.alloc_cnt, static_cast<unsigned>(count));
        EXPECT_EQ(table_fault(table), "");
        for (const int i : {0, count / 2, count - 1}) {
            char id[17];
            agt::put_text(id, ("SERVICE" + std::to_string(i)).c_str());
            EXPECT_TRUE(count == 0 || std::string(table.h_arr[9999 - i].param.service_id) == id) << i;
        }
    }
};

TEST_F(ServiceList, IsLoadedAtStartAndByEveryRenewal) {
    server.set_services(services(9));
    start();
    EXPECT_TRUE(server.wait_for('6', 2));
    expect_loaded(9);
    for (const int count : {0, 8, 1000, 10001}) {
        SCOPED_TRACE(count);
        server.forget_messages();
        server.set_services(services(count));
        renew_and_wait();
        expect_loaded(std::min(count, 10000));
        const int blocks = std::max((count + 7) / 8, 1);
        EXPECT_TRUE(server.wait_for('6', static_cast<std::size_t>(blocks)));
        EXPECT_EQ(server.count('6'), static_cast<std::size_t>(blocks));
        EXPECT_EQ(daemon.count_log("(i) MSGRCV : [[ GET_SERVICE_LIST_RSP ]]\n"), static_cast<std::size_t>(blocks));
        EXPECT_EQ(daemon.count_log("service_id : |SERVICE"), static_cast<std::size_t>(std::min(count, 10000)));
    }
    const SERVICE_ELEMENT one_more = kessctl::make_service("ONE MORE");
    TCP_CMD_MSG answer;
    EXPECT_TRUE(client.request(kessctl::modified_services_frame(&one_more, 1), &answer));
    EXPECT_EQ(kessctl::field_text(answer, "element_num"), "000"); // the table is full
    EXPECT_EQ(kessctl::field_text(answer, "result_code"), "0");
}

TEST_F(ServiceList, ExchangesTheseBytesAndLogsTheTable) {
    std::vector<SERVICE_ELEMENT> one = {kessctl::make_service("PAYMENT")};
    agt::put_text(one[0].host_name, "host");
    agt::put_text(one[0].server_id, "server");
    agt::put_text(one[0].limit, "7");
    agt::put_text(one[0].call_trc_limit, "-1");
    agt::put_text(one[0].dbio_trc_limit, "2");
    agt::put_text(one[0].sql_trc_limit, "2147483647");
    agt::put_text(one[0].uflag_set, "Q");
    agt::put_text(one[0].tflag, "4");
    server.set_services(one);
    start_running(daemon);
    TCP_CMD_MSG request = start_frame('4');
    gethostname(request.body.get_service_list_req.host_name, 65);
    TCP_CMD_MSG acknowledgement = request; // in the same buffer
    acknowledgement.hdr.msg_type[0] = '6';
    acknowledgement.body.get_service_list_rspack.result_code[0] = '0';
    EXPECT_EQ(std::memcmp(&server.wait_for('4')->frame, &request, sizeof request), 0);
    EXPECT_EQ(std::memcmp(&server.wait_for('6')->frame, &acknowledgement, sizeof request), 0);

    const SVC_HASH_ARR_LIST& slot = daemon.services()->h_arr[9999];
    const auto blank = [](std::string text, std::size_t width) { return text + std::string(width - text.size(), ' '); };
    const std::string at = "[0] array_idx#9999, ";
    const texts wanted = {"(i) get service list thread is starting..",
                          "(i) MSGRCV : [[ GET_SERVICE_LIST_RSP ]]",
                          "(i) -> ELEMENT_NUM - '001'",
                          "------------------------ SERVICE HASH TABLE ----------------------------",
                          "alloc_cnt : 1, used.top : 1",
                          "",
                          at + "my_idx : 9999",
                          at + "hash_idx : " + std::to_string(slot.hash_idx),
                          at + "pre_idx : -1",
                          at + "next_idx : -1",
                          "- - - - - - - - - - - - - - - - - - - - - - - - - - - - - - - - - - ",
                          at + "host_name : |" + blank("host", 64) + "|",
                          at + "server_id : |" + blank("server", 15) + "|",
                          at + "service_id : |" + blank("PAYMENT", 16) + "|",
                          at + "limit : 7",
                          at + "call_trc_limit : -1",
                          at + "dbio_trc_limit : 2",
                          at + "sql_trc_limit : 2147483647",
                          at + "uflag_set : -128",
                          at + "tflag : 4",
                          THREAD_END};
    const texts lines = messages(daemon.log());
    const auto first = std::find(lines.begin(), lines.end(), wanted[0]);
    const auto last = std::find(first, lines.end(), wanted.back());
    ASSERT_NE(last, lines.end());
    EXPECT_EQ(texts(first, last + 1), wanted);
}

struct bad_server {
    const char* name;
    answer_fault first;  // of the first block
    answer_fault second; // of the second
    const char* logged;
    int entries; // in the table, which had 3; the list has 16
};

class BadServer : public ServiceList, public testing::WithParamInterface<bad_server> {};

TEST_P(BadServer, LeavesATableInOrderAndTheFilterAsItWas) {
    const bad_server& bad = GetParam();
    server.set_services(services(3));
    start();
    daemon.settings()->svc_filtering = 5;
    server.set_services(services(16));
    server.change([&](stand_in_options& options) { options.faults = {{'4', bad.first}, {'6', bad.second}}; });
    renew_and_wait();
    expect_loaded(bad.entries);
    EXPECT_EQ(daemon.count_log(bad.logged), 1u);
    EXPECT_EQ(daemon.settings()->svc_filtering, 5);
    EXPECT_EQ(semctl(daemon.sem_id("SVC_HASH_TBL_SEMKEY"), 0, GETVAL), 1);
    server.change([&](stand_in_options& options) { options.faults.clear(); });
    renew_and_wait();
    expect_loaded(16);
}

const bad_server BAD_SERVERS[] = {
    {"Mute", {.silent = true}, {}, "<!> server recv error.. rlen : -2\n", 3},
    {"MuteBehindTheFirstBlock", {}, {.silent = true}, "<!> server recv error.. rlen : -2\n", 8},
    {"Closing", {.close_after_bytes = 0}, {}, "<!> server recv error.. rlen : 0\n", 3},
    {"ClosingInABlock", {.close_after_bytes = 700}, {}, "<!> server recv error.. rlen : 0\n", 3},
    {"ClosingInTheSecondBlock", {}, {.close_after_bytes = 700}, "<!> server recv error.. rlen : 0\n", 8},
    {"WrongMagic", {.wrong_magic = true}, {}, "<!> get_service_list->magic bit mismatch. sockfd : ", 3},
    {"WrongMagicBehindTheFirstBlock", {}, {.garbage = true}, "get_service_list->magic bit mismatch. sockfd : ", 8},
    {"WrongType", {.wrong_type = '1'}, {}, "alloc_cnt : 0, used.top : 0\n", 0},
    {"WrongTypeBehindTheFirstBlock", {}, {.wrong_type = '6'}, "alloc_cnt : 8, used.top : 8\n", 8},
    {"Slow", {.delay_ms = 1500, .split_after_bytes = 700}, {.delay_ms = 500}, "alloc_cnt : 16, used.top : 16\n", 16},
};

INSTANTIATE_TEST_SUITE_P(ServiceList, BadServer, testing::ValuesIn(BAD_SERVERS),
                         [](const auto& one) { return std::string(one.param.name); });

TEST_F(ServiceList, KeepsItsTableWhenTheServerIsAbsent) {
    server.set_services(services(3));
    start();
    server.close_listener();
    renew_and_wait();
    expect_loaded(3);
    EXPECT_EQ(
        daemon.count_log("<!> server connection fail. (ip 127.0.0.1, port " + std::to_string(server.port()) + ") \n"),
        1u);
}

TEST_F(ServiceList, LocksTheTableAndSwitchesTheFilterOffWhileItRuns) {
    start();
    daemon.settings()->svc_filtering = 3;
    std::promise<void> answer_now;
    const std::shared_future<void> answer_time = answer_now.get_future().share();
    server.change([&](stand_in_options& options) {
        options.hook = [answer_time](const kessctl::exchange&, std::string&) { answer_time.wait(); };
    });
    server.set_services(services(5));
    const int semid = daemon.sem_id("SVC_HASH_TBL_SEMKEY");
    EXPECT_TRUE(renew());
    EXPECT_TRUE(wait_until([&] { return semctl(semid, 0, GETVAL) == 0; }));
    EXPECT_EQ(semctl(semid, 0, GETPID), daemon.pid());
    EXPECT_EQ(daemon.settings()->svc_filtering, 0);
    EXPECT_TRUE(renew());
    EXPECT_TRUE(daemon.wait_log("<!> get service list thread is already running now.. skip action .\n"));
    server.change([&](stand_in_options& options) { options.hook = {}; });
    answer_now.set_value();
    EXPECT_TRUE(daemon.wait_log(THREAD_END));
    EXPECT_EQ(daemon.settings()->svc_filtering, 3);
    expect_loaded(5);
    EXPECT_EQ(daemon.count_log(THREAD_END), 1u); // the second was not queued
    EXPECT_TRUE(renew());
    EXPECT_TRUE(daemon.wait_log(THREAD_END, 2));
}

// One list whose blocks each say something else about their number.
TEST_F(ServiceList, TakesAnyElementNumber) {
    const struct {
        const char* num;
        std::size_t loaded;
    } cases[] = {{"999", 8}, {"009", 8}, {"8888", 8}, {"007", 7}, {" 2,", 2}, {"-1", 0}, {"abc", 0}, {"", 0}};
    start();
    const std::vector<SERVICE_ELEMENT> all = services(64);
    std::vector<TCP_CMD_MSG> blocks;
    texts wanted;
    for (const auto& one : cases) {
        const std::size_t first = blocks.size() * 8;
        blocks.push_back(kessctl::service_block_frame(&all[first], 8, first == 56));
        std::memcpy(blocks.back().body.get_service_list_rsp.element_num, one.num, 4);
        for (std::size_t i = first; i < first + one.loaded; ++i)
            wanted.push_back(std::string(all[i].service_id, 16));
    }
    server.change([&](stand_in_options& options) { options.raw_blocks = blocks; });
    renew_and_wait();
    texts loaded;
    for (std::size_t i = 0; i < daemon.services()->used.top; ++i)
        loaded.push_back(daemon.services()->h_arr[9999 - i].param.service_id);
    EXPECT_EQ(loaded, wanted);
    EXPECT_EQ(table_fault(*daemon.services()), "");
    for (const auto& one : cases)
        EXPECT_EQ(daemon.count_log("(i) -> ELEMENT_NUM - '" + std::string(one.num) + "'\n"), 1u);
}

TEST_F(ServiceList, WaitsForATableThatAnotherProcessHolds) {
    server.set_services(services(2));
    start();
    const int semid = daemon.sem_id("SVC_HASH_TBL_SEMKEY");
    sembuf operation = {0, -1, SEM_UNDO};
    ASSERT_EQ(semop(semid, &operation, 1), 0);
    daemon.services()->used.idx[0] = 12345; // only to see that nobody touches the table
    const SERVICE_ELEMENT service = kessctl::make_service("ADDED");
    EXPECT_TRUE(renew());
    EXPECT_TRUE(wait_until([&] { return semctl(semid, 0, GETNCNT) == 1; }));
    EXPECT_TRUE(client.send(kessctl::modified_services_frame(&service, 1)));
    EXPECT_TRUE(wait_until([&] { return semctl(semid, 0, GETNCNT) == 2; }));
    EXPECT_EQ(daemon.services()->used.idx[0], 12345u);
    daemon.services()->used.idx[0] = 9999;
    operation.sem_op = 1;
    ASSERT_EQ(semop(semid, &operation, 1), 0);
    TCP_CMD_MSG answer;
    EXPECT_TRUE(client.receive(&answer)) << client.error();
    EXPECT_TRUE(daemon.wait_log(THREAD_END));
    EXPECT_EQ(table_fault(*daemon.services()), "");

    semctl(semid, 0, IPC_RMID); // removed under the daemon: said, and the work goes on
    renew_and_wait();
    EXPECT_EQ(daemon.count_log("<!> svc_hash_tbl semaphore lock error."), 1u);
    expect_loaded(2);
}

TEST_F(ServiceList, RenewedManyTimesLeavesNothingBehind) {
    server.close_listener();
    start();
    const auto resident_kb = [&] { return std::stol(status_of(daemon.pid(), "VmRSS")); };
    const auto virtual_kb = [&] { return std::stol(status_of(daemon.pid(), "VmSize")); };
    std::size_t done = 0;
    const auto renew_some = [&](std::size_t count) {
        for (const std::size_t end = done + count; done < end;) {
            ASSERT_TRUE(renew()) << client.error();
            ASSERT_TRUE(daemon.wait_log(THREAD_END, ++done));
        }
    };
    renew_some(20);
    const std::size_t descriptors = open_files(daemon.pid()).size();
    const std::string threads = status_of(daemon.pid(), "Threads");
    const long resident_before = resident_kb();
    const long virtual_before = virtual_kb();
    renew_some(300);
    EXPECT_TRUE(wait_until([&] { return open_files(daemon.pid()).size() == descriptors; }));
    EXPECT_LE(std::stoi(status_of(daemon.pid(), "Threads")), std::stoi(threads) + 1); // one may be on its last steps
    EXPECT_LT(resident_kb(), resident_before + 2048);
    EXPECT_LT(virtual_kb(), virtual_before + 64 * 1024); // a lost thread keeps 8 MiB
}

} // namespace
