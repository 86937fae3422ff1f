// Retrieval of the service list through the real program: lists of all sizes, servers of all kinds.
#include <future>

#include "served_agent.h"

namespace {

using namespace std::string_literals;
using namespace test_support;
using kessctl::answer_fault;
using kessctl::start_frame;

class ServiceList : public served_agent {
  protected:
    void renew_and_wait() {
        a.mark_log();
        EXPECT_TRUE(renew()) << client.error();
        EXPECT_TRUE(a.wait_log(THREAD_END));
    }
    // Slot 9999 holds the first service and so on.
    void expect_loaded(int count) {
        SVC_HASH_TBL& table = *a.services();
        EXPECT_EQ(table.alloc_cnt, static_cast<unsigned>(count));
        EXPECT_EQ(table_fault(table), "");
        for (int i = 0; i < count; ++i) {
            const std::string found = table.h_arr[9999 - i].param.service_id;
            EXPECT_TRUE((found + ' ').starts_with("SERVICE" + std::to_string(i) + " ")) << i;
        }
    }
};

TEST_F(ServiceList, IsLoadedAtStartAndByEveryRenewal) {
    server.set_services(services(9));
    start();
    EXPECT_TRUE(server.wait_for('6', 2));
    expect_loaded(9);
    texts dumped;
    for (int i = 0; i < 9; ++i)
        dumped.push_back("[" + std::to_string(i) + "] array_idx#" + std::to_string(9999 - i) +
                         ", service_id : |SERVICE" + std::to_string(i) + " ");
    EXPECT_TRUE(in_order(a, dumped));
    for (const int count : {0, 8, 1000, 10001}) {
        SCOPED_TRACE(count);
        server.forget_messages();
        server.set_services(services(count));
        renew_and_wait();
        expect_loaded(std::min(count, 10000));
        const auto blocks = static_cast<std::size_t>(std::max((count + 7) / 8, 1));
        EXPECT_TRUE(server.wait_for('6', blocks));
        EXPECT_EQ(server.count('6'), blocks);
        EXPECT_EQ(a.count_log("(i) MSGRCV : [[ GET_SERVICE_LIST_RSP ]]\n"), blocks);
        EXPECT_EQ(static_cast<int>(a.count_log("service_id : |SERVICE")), std::min(count, 10000));
    }
    const SERVICE_ELEMENT one_more = kessctl::make_service("ONE MORE");
    EXPECT_TRUE(ask(kessctl::modified_services_frame(&one_more, 1)));
    EXPECT_EQ(kessctl::field_text(answer, "element_num"), "000"); // the table is full
    EXPECT_EQ(kessctl::field_text(answer, "result_code"), "0");
}

TEST_F(ServiceList, ExchangesTheseBytesAndLogsTheTable) {
    std::vector<SERVICE_ELEMENT> one(1);
    const texts words = {"PAYMENT",       "host=ho\tst",  "server=server",        "limit=7",
                         "call_limit=-1", "dbio_limit=2", "sql_limit=2147483647", "flags=Q",
                         "tflag=4"};
    ASSERT_EQ(kessctl::parse_service(words, &one[0]), "");
    server.set_services(one);
    start_running(a);
    TCP_CMD_MSG request = start_frame('4');
    gethostname(request.body.get_service_list_req.host_name, 65);
    TCP_CMD_MSG acknowledgement = request; // in the same buffer
    acknowledgement.hdr.msg_type[0] = '6';
    acknowledgement.body.get_service_list_rspack.result_code[0] = '0';
    EXPECT_EQ(std::memcmp(&server.wait_for('4')->frame, &request, sizeof request), 0);
    EXPECT_EQ(std::memcmp(&server.wait_for('6')->frame, &acknowledgement, sizeof request), 0);

    texts wanted = {"(i) get service list thread is starting..\n",
                    "(i) MSGRCV : [[ GET_SERVICE_LIST_RSP ]]\n", "(i) -> ELEMENT_NUM - '001'\n",
                    "------------------------ SERVICE HASH TABLE ----------------------------\n",
                    "alloc_cnt : 1, used.top : 1\n"};
    const std::string bucket = std::to_string(a.services()->h_arr[9999].hash_idx);
    for (const std::string& field :
         {"my_idx : 9999"s, "hash_idx : " + bucket, "pre_idx : -1"s, "next_idx : -1"s,
          "host_name : |ho\\x09st" + std::string(59, ' ') + "|", "server_id : |server         |"s,
          "service_id : |PAYMENT         |"s, "limit : 7"s, "call_trc_limit : -1"s,
          "dbio_trc_limit : 2"s, "sql_trc_limit : 2147483647"s, "uflag_set : -128"s, "tflag : 4"s})
        wanted.push_back("[0] array_idx#9999, " + field + "\n");
    wanted.push_back(THREAD_END);
    EXPECT_TRUE(a.wait_log(THREAD_END) && in_order(a, wanted));
}

// A name, what goes wrong with the first and with the second block, the log, and the entries of
// the table then: it had 3, and the list has 16.
using bad_server = std::tuple<const char*, answer_fault, answer_fault, const char*, int>;
const bad_server BAD_SERVERS[] = {
    {"Mute", {.silent = true}, {}, "<!> server recv error.. rlen : -2\n", 3},
    {"Closing", {.close_after_bytes = 0}, {}, "<!> server recv error.. rlen : 0\n", 3},
    {"ClosingLater", {}, {.close_after_bytes = 700}, "<!> server recv error.. rlen : 0\n", 8},
    {"WrongMagic", {.wrong_magic = true}, {}, "<!> get_service_list->magic bit mismatch. ", 3},
    {"WrongMagicLater",
     {},
     {.garbage = true},
     "get_service_list->magic bit mismatch. sockfd : ",
     8},
    {"WrongType", {.wrong_type = '1'}, {}, "alloc_cnt : 0, used.top : 0\n", 0},
    {"WrongTypeLater", {}, {.wrong_type = '6'}, "alloc_cnt : 8, used.top : 8\n", 8},
    {"Slow",
     {.delay_ms = 1500, .split_after_bytes = 700},
     {.delay_ms = 500},
     "alloc_cnt : 16, used.top : 16\n",
     16}};

class BadServer : public ServiceList, public testing::WithParamInterface<bad_server> {};
INSTANTIATE_TEST_SUITE_P(ServiceList, BadServer, testing::ValuesIn(BAD_SERVERS),
                         [](const auto& one) { return std::string(std::get<0>(one.param)); });

TEST_P(BadServer, LeavesATableInOrderAndTheFilterAsItWas) {
    const auto& [name, first, second, logged, entries] = GetParam();
    server.set_services(services(3));
    start();
    a.settings()->svc_filtering = 5;
    server.set_services(services(16));
    set_fault('4', first);
    set_fault('6', second);
    renew_and_wait();
    expect_loaded(entries);
    EXPECT_EQ(a.count_log(logged), 1u);
    EXPECT_EQ(a.settings()->svc_filtering, 5);
    EXPECT_EQ(semctl(a.sem_id("SVC_HASH_TBL_SEMKEY"), 0, GETVAL), 1);
    server.change([&](auto& options) { options.faults.clear(); });
    renew_and_wait();
    expect_loaded(16);
}

TEST_F(ServiceList, LocksTheTableAndSwitchesTheFilterOffWhileItRuns) {
    start();
    a.settings()->svc_filtering = 3;
    std::promise<void> answer_now;
    const std::shared_future<void> time = answer_now.get_future().share();
    const auto wait = [time](const auto&, std::string&) { time.wait(); };
    server.change([&](auto& options) { options.hook = wait; });
    server.set_services(services(5));
    const int semid = a.sem_id("SVC_HASH_TBL_SEMKEY");
    a.mark_log();
    EXPECT_TRUE(renew());
    EXPECT_TRUE(wait_until([&] { return semctl(semid, 0, GETVAL) == 0; }));
    EXPECT_EQ(semctl(semid, 0, GETPID), a.pid());
    EXPECT_EQ(a.settings()->svc_filtering, 0);
    EXPECT_TRUE(renew());
    EXPECT_TRUE(a.wait_log("<!> get service list thread is already running now.. skip action .\n"));
    server.change([&](auto& options) { options.hook = {}; });
    answer_now.set_value();
    EXPECT_TRUE(a.wait_log(THREAD_END));
    EXPECT_EQ(a.settings()->svc_filtering, 3);
    expect_loaded(5);
    EXPECT_EQ(a.count_log(THREAD_END), 1u); // the second was not queued
    EXPECT_TRUE(renew());
    EXPECT_TRUE(a.wait_log(THREAD_END, 2));
}

// One list whose blocks each say something else about their number.
TEST_F(ServiceList, TakesAnyElementNumber) {
    start();
    const std::vector<SERVICE_ELEMENT> all = services(40);
    std::vector<TCP_CMD_MSG> blocks;
    for (const char* num : {"999", "8888", " 2,", "-1", "a\vc"}) {
        const std::size_t nth = blocks.size();
        blocks.push_back(kessctl::service_block_frame(&all[nth * 8], 8, nth == 4));
        std::memcpy(blocks.back().body.get_service_list_rsp.element_num, num, std::strlen(num));
    }
    server.change([&](auto& options) { options.raw_blocks = blocks; });
    renew_and_wait();
    expect_loaded(8 + 8 + 2);
    for (const char* num : {"999'", "888'", " 2,'", "-1", "a\\x0bc'"})
        EXPECT_EQ(a.count_log("(i) -> ELEMENT_NUM - '" + std::string(num)), 1u);
}

} // namespace
