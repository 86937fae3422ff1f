// Reports to the server: every byte of a health check and of the device information, and what a bad
// server does to the connection. Cycles run in this process, on memory of its own.
#include "health_check.h"

#include "get_service_list.h"
#include "jcache_hash_stk.h"
#include "log_printf.h"
#include "process_globals.h"
#include "ptrc_hash_stk.h"
#include "sem.h"
#include "served_agent.h"
#include "set_svc_hash_tbl.h"
#include "settings.h"
#include "shmem.h"
#include "state_file.h"
#include "tran_agt.h"
#include "tran_logf_que_info.h"

namespace {

using namespace test_support;
using namespace kessard;

// Nothing of the agent but its directory and its keys.
class HealthCheck : public served_agent {
  protected:
    TRAN_LOGF_QUE_INFO settings{};
    zeroed<SVC_HASH_TBL> service_table;
    zeroed<PTRC_HASH_TBL> traces;
    zeroed<JCACHE_HASH_TBL> cache;
    zeroed<TRAN_AGT_SHM> segment;
    bool reconnect = false;

    HealthCheck() {
        agt::open_log(a.path("logs/proc/kessard").c_str(), "kessard", 1);
        set_server_address("127.0.0.1", server.port());
        agt::copy_text(api_stat_out_fn, a.path("api_stat.out").c_str());
        svc_hash_tbl_semid = agt::create_sem(a.sem_key("SVC_HASH_TBL_SEMKEY"), 1);
        que_info = &settings;
        svc_hash_tbl = service_table.get();
        ptrc_hash_tbl = traces.get();
        jcache_hash_tbl = cache.get();
        tran_agt_shm = segment.get();
        proc_info = tran_agt_shm->proc_info;
        running = 1;
    }
    ~HealthCheck() override {
        agt::close_tcp_session(svr_cmd_sockfd.exchange(-1));
        agt::close_log();
    }

    // Runs one cycle; the body that the server got, empty when it got none.
    std::string cycle() {
        server.forget_messages();
        health_check_cycle(&reconnect);
        const auto got = server.wait_for('0', 1, 0);
        return got ? bytes_of(got->frame.body.health_check_req) : "";
    }
    void add_process(const char* name, bool off) {
        PROCESS_INFO& row = proc_info[tran_agt_shm->proc_num++];
        agt::copy_text(row.proc_bin, name);
        row.cur_sts = off ? 'x' : 'y';
        row.act_sts = 'y';
    }
    void add_trace(unsigned slot, const char* tid, const char* proc_nm) {
        ptrc_hash_tbl->used.idx[ptrc_hash_tbl->used.top++] = slot;
        PTRC_HASH_ARR& entry = ptrc_hash_tbl->h_arr[slot].param;
        agt::copy_text(entry.tid, tid);
        agt::copy_text(entry.proc_nm, proc_nm);
    }
};

// As a field of 65 bytes.
std::string host_field() {
    std::string name = host_name();
    name.resize(65);
    return name;
}

TEST_F(HealthCheck, ReportsEveryFieldByteForByte) {
    agt::copy_text(agt_ipaddr, "10.1.2.3");
    agt_cmd_port = 7000;
    agt::copy_text(log_interface, "01");
    settings = {16, 0,          TRACE_ON_MAGIC_CODE, 0x81,     {},  123456,
                -5, 2147483648, 98765432109,         char(-1), '1', '-',
                {}};
    int existed = 0;
    tran_logf_que_info_shmkey = a.shm_key("TRAN_LOGF_QUE_INFO_SHMKEY");
    svc_hash_tbl_shmkey = a.shm_key("SVC_HASH_TBL_SHMKEY"); // no such segment
    const int shmid = agt::create_shm(tran_logf_que_info_shmkey, 1, &existed);
    void* attached[] = {agt::attach_shm(shmid), agt::attach_shm(shmid)};
    svc_hash_tbl->alloc_cnt = 42;
    add_process("pulsed", true);
    add_trace(3, "000000000000000", "java");
    add_trace(4, "000000000000001", "java");
    ptrc_hash_tbl->used.top = 1234; // the others name slot 0, which is no process
    jcache_hash_tbl->used.top = 2000000;
    tran_agt_shm->que_stat[0] = {123456, 7, UINT_MAX, 3, 9, 99.5F};
    tran_agt_shm->que_stat[15] = {0, 0, 0, 0, 0, -1.25F};

    const std::string zeros = "00000,00000,00000,00000,00000,";
    std::string rows;
    for (int i = 1; i < 15; ++i)
        rows += zeros + "0.00  ,";
    const std::string head =
        host_field() + "10.1.2.3       ,07000,01,SQ      ,016,1,-,12345,-000000000,2147483648," +
        "9876543210,00000002,-0000000,00000042,1,0,1,00001,12.34 ,100.00," +
        "12345,00007,-0000,00003,00003,99.50 ," + rows + zeros + "-1.25 ,";
    ASSERT_EQ(head.size(), offsetof(BODY_HEALTH_CHECK_REQ, api_stat));
    std::string body;
    const std::time_t now = within_one_second([](time_t) {}, [&] { body = cycle(); });
    EXPECT_EQ(body.substr(0, head.size()), head);
    EXPECT_EQ(body.substr(791, 210), std::string(210, '\0')); // no file was read yet
    EXPECT_EQ(body.substr(1014), "pulsed 1" + std::string(301 - 8, '\0'));
    EXPECT_EQ(std::memcmp(&server.wait_for('0')->frame, "\x90\x85\x20\x83\x30\0", 6), 0);
    EXPECT_EQ(body.substr(1001, 6), local_text("%H%M%S", now));
    EXPECT_EQ(body.find_first_not_of("0123456789", 1007), 1013u); // microseconds
    EXPECT_EQ(body[1013], ',');
    const std::string port = std::to_string(server.port());
    EXPECT_TRUE(in_order(a, {"(i) ##### health check start, ip : 127.0.0.1(" + port +
                                 ") every 30(sec) send 1407 bytes.\n",
                             "(i) ##### health check complete (slen : 1407, rlen : 1407), "
                             "result_code : 0, svr_gap_time : 0         \n"}));
    ptrc_hash_tbl = nullptr;
    jcache_hash_tbl = nullptr;
    EXPECT_EQ(cycle().substr(179, 20), "-0000,-1.00 ,-1.00 ,");
    EXPECT_EQ(server.connections(), 1);
    for (const void* address : attached)
        agt::detach_shm(address);
}

TEST_F(HealthCheck, TakesTwoLinesOfTheStatisticsFile) {
    const auto record = [](std::string line) {
        line += '\0';
        line.resize(105, ' ');
        return line;
    };
    const std::string none(105, ' ');
    const std::string wide(150, 'w');
    const std::tuple<std::string, std::string, std::size_t> cases[] = {
        {"", none + none, 0},
        {"WEB \x1b\n", record("WEB \x1b\n") + none, 1},
        {"WEB", record("WEB") + none, 1},
        {wide + "\nB\n", wide.substr(0, 105) + record("B\n"), 2},
        {"A\nB\nC\nD\n", record("A\n") + record("B\n"), 3},
        {std::string(5000, 'x'), std::string(210, 'x'), 3}}; // a line that never ends
    for (const auto& [text, records, logged] : cases) {
        a.write_file("api_stat.out", text);
        a.mark_log();
        EXPECT_EQ(cycle().substr(791, 210), records) << text;
        EXPECT_EQ(a.count_log("(I) api_stat.out #"), logged) << text;
        EXPECT_EQ(a.count_log("\x1b"), 0u);
    }
    EXPECT_EQ(a.count_log("|" + std::string(1024, 'x') + "|\n"), 3u);
    std::filesystem::remove(a.path("api_stat.out"));
    EXPECT_EQ(cycle().substr(791, 210), std::string(210, 'x')); // as before
}

TEST_F(HealthCheck, SummarisesProcessesThatAreNotAsWanted) {
    const std::string longest(50, 'p');
    const std::pair<texts, std::string> cases[] = {
        {{}, ""}, // '+' in front: as wanted
        {{"+a", "+b"}, ""},
        {{"trailsink", "trailsink", "pulsed"}, "trailsink 2, pulsed 1"},
        {{"a", "+b", "a", "+a", "a"}, "a 3"},
        {{"a", "b", "a"}, "a 1, b 1, a 1"}};
    char text[301];
    for (const auto& [names, wanted] : cases) {
        tran_agt_shm->proc_num = 0;
        for (const std::string& name : names)
            add_process(name.c_str() + (name[0] == '+' ? 1 : 0), name[0] != '+');
        EXPECT_EQ(get_engine_sts(text), wanted.empty() ? 0 : 1);
        EXPECT_STREQ(text, wanted.c_str());
    }
    tran_agt_shm->proc_num = 0;
    for (int i = 0; i < 11; ++i)
        add_process(i % 2 == 0 ? longest.c_str() : "b", true);
    std::memset(text, 'x', sizeof text);
    EXPECT_EQ(get_engine_sts(text), 1);
    EXPECT_TRUE(std::string(text).starts_with(longest + " 1, b 1, p"));
    EXPECT_EQ(strnlen(text, sizeof text), 300u);
    for (const int rows : {-1, INT_MIN, INT_MAX}) { // of another process's making
        tran_agt_shm->proc_num = rows;
        EXPECT_EQ(get_engine_sts(text), rows > 0 ? 1 : 0);
    }
}

TEST_F(HealthCheck, CountsInitialProcesses) {
    unsigned slot = 0;
    for (const char* name : {"java", "python", "trailsink", "pulsed2", "beaconer", "pulse"})
        add_trace(slot++, "000000000000000", name);
    add_trace(slot, "00000000000000", "java");
    ptrc_hash_tbl->used.idx[ptrc_hash_tbl->used.top++] = 10000; // no slot
    EXPECT_EQ(get_init_proc_num(), 3);
    ptrc_hash_tbl->used.top = UINT_MAX;
    EXPECT_EQ(get_init_proc_num(), 3 + (10000 - 8)); // the rest names slot 0
}

TEST_F(HealthCheck, SendsTheDeviceInformationOnce) {
    const std::pair<double, std::string> cases[] = {{16384.0, "16384." + std::string(24, '0')},
                                                    {0.5, "0.5" + std::string(27, '0')},
                                                    {-1e40, "-10000000000000000303786028427"}};
    for (const auto& [mem_total, text] : cases) {
        std::memset(tran_agt_shm->device_info.os_info, 'o', 201);
        tran_agt_shm->device_info.core_cnt = 8;
        tran_agt_shm->device_info.mem_total = mem_total;
        server.forget_messages();
        EXPECT_EQ(transfer_device_info(), 1);
        EXPECT_EQ(transfer_device_info(), 1); // connected already: not sent again
        EXPECT_EQ(server.messages().size(), 1u);
        const auto frame = server.wait_for('H')->frame;
        EXPECT_EQ(std::memcmp(&frame, "\x90\x85\x20\x83H\0", 6), 0);
        const std::string wanted = host_field() + std::string(200, 'o') + ",00008," + text + ",";
        EXPECT_EQ(bytes_of(frame.body).substr(0, 303), wanted);
        agt::close_tcp_session(svr_cmd_sockfd.exchange(-1));
    }
    EXPECT_EQ(a.count_log("(i) ##### device info send complete\n"), 6u);
    server.close_listener();
    EXPECT_EQ(transfer_device_info(), -1);
    EXPECT_EQ(a.count_log("<!> server connection fail. (ip 127.0.0.1, port "), 1u);
}

TEST_F(HealthCheck, RetrievesTheListAfterAFailedConnect) {
    const std::string line = std::string(48, '#') + "\n";
    EXPECT_NE(cycle(), ""); // the first success does not
    EXPECT_FALSE(reconnect);
    set_fault('0', {.close_after_bytes = 5});
    EXPECT_NE(cycle(), "");
    EXPECT_EQ(svr_cmd_sockfd, -1);
    EXPECT_FALSE(reconnect); // a connection that broke does not either
    EXPECT_EQ(a.count_log("<!> XXXX server recv error.. , rlen : 0\n"), 1u);
    EXPECT_EQ(figures->server_error, STATE_SERVER_CLOSED);
    server.close_listener();
    EXPECT_EQ(cycle(), "");
    EXPECT_EQ(cycle(), "");
    EXPECT_TRUE(reconnect);
    EXPECT_EQ(figures->server_error, ECONNREFUSED);
    EXPECT_EQ(figures->server_failing, 3);
    EXPECT_GT(figures->server_tried_ms, 0);
    EXPECT_EQ(a.count_log("<!> server connection fail. (ip 127.0.0.1, port "), 2u);
    EXPECT_EQ(a.count_log(line), 0u);
    EXPECT_EQ(server.open_listener(), "");
    set_fault('0', {.wrong_type = 'x'}); // not looked at
    EXPECT_NE(cycle(), "");
    EXPECT_FALSE(reconnect);
    EXPECT_EQ(figures->server_failing, 0);
    const texts wanted = {line, "get service list thread is starting..", line, "check complete"};
    EXPECT_TRUE(in_order(a.log(), wanted));
    th_join_get_service_list();
    EXPECT_EQ(server.count('4'), 1u);
    EXPECT_NE(cycle(), "");
    EXPECT_EQ(a.count_log("get service list thread is starting.."), 1u);
}

TEST_F(HealthCheck, ReconnectsToAMuteServer) {
    set_fault('0', {.silent = true});
    const long long start_ms = agt::monotonic_ms();
    EXPECT_NE(cycle(), "");
    EXPECT_GE(agt::monotonic_ms() - start_ms, 10000);
    EXPECT_EQ(a.count_log("<!> XXXX server recv error.. , rlen : -2\n"), 1u);
    EXPECT_EQ(figures->server_error, STATE_SERVER_NO_ANSWER);
    set_fault('0', {});
    EXPECT_NE(cycle(), "");
    EXPECT_EQ(server.connections(), 2);
}

} // namespace
