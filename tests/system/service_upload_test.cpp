// Uploads of a script's service list through the real program.
#include "served_agent.h"

namespace {

using namespace test_support;

constexpr char UPDATE = MSG_UPDATE_SERVICE_LIST_REQ;
constexpr char STARTED[] = "(I) run shell-command get service list starting..";
constexpr char ENDED[] = "(I) End Thread-function(cmd_service_list)...";

// An agent whose trigger file runs its script, and the server that it uploads to.
class ServiceUpload : public served_agent {
  protected:
    ServiceUpload() {
        a.set("SERVICE_HASH", "DAILY_UPDATE_YN", "Y");
        write_script("echo never");
    }
    void write_script(const std::string& text) const {
        a.write_file("services.sh", "#!/bin/sh\n" + text + "\n", 0755);
    }
    // Has an upload started; one that is just ending makes the agent refuse the next.
    void trigger() {
        a.mark_log();
        EXPECT_TRUE(wait_until([&] {
            if (!std::filesystem::exists(a.path("svc_update")) && a.count_log(STARTED) == 0)
                a.write_file("svc_update", "");
            return a.count_log(STARTED) > 0;
        }));
    }
    void upload() {
        server.forget_messages();
        trigger();
        EXPECT_TRUE(a.wait_log(ENDED) && a.wait_log(THREAD_END));
    }
};

std::string lines(int count) {
    return "for i in $(seq " + std::to_string(count) + "); do echo SVC$i $i; done";
}

// The blocks of an upload: result_code and element_num of each.
std::string blocks(const kessctl::stand_in& server) {
    std::string found;
    for (const kessctl::received_message& message : server.messages())
        if (message.frame.hdr.msg_type[0] == UPDATE)
            found += kessctl::field_text(message.frame, "result_code") + " " +
                     kessctl::field_text(message.frame, "element_num") + ",";
    return found;
}

TEST_F(ServiceUpload, SendsBlocksOfFifteen) {
    const std::pair<int, std::string> cases[] = {
        {0, ""}, {1, "3 001,"}, {15, "3 015,"}, {16, "3 015,4 001,"}, {31, "3 015,4 015,4 001,"}};
    start();
    for (const auto& [count, wanted] : cases) {
        SCOPED_TRACE(count);
        write_script(lines(count));
        upload();
        EXPECT_EQ(blocks(server), wanted);
        EXPECT_EQ(a.count_log("\t[#"), static_cast<std::size_t>(count));
        EXPECT_EQ(a.count_log("(I) Update Service List Complete."), wanted.size() / 6);
        const std::string total = "(I) Total [" + std::to_string(count);
        EXPECT_TRUE(in_order(a, {total + "] Services Server Update, Success..", ENDED,
                                 "(i) get service list thread is starting.."}));
        EXPECT_EQ(server.count(MSG_GET_SERVICE_LIST_REQ), 1u);
        EXPECT_FALSE(std::filesystem::exists(a.path("svc_update")));
    }
    const TCP_CMD_MSG last = server.wait_for(UPDATE, 3).value().frame;
    EXPECT_EQ(kessctl::field_text(last, "elements[0].service_id"), "SVC31");
    EXPECT_TRUE(in_order(
        a.log(), {STARTED, "###(I) call thread-function(cmd_service_list)...",
                  "###(I) service block-elements(max 15).",
                  "###(I) trying server connect. (ip 127.0.0.1, port ",
                  "(i) server connection success. (ip 127.0.0.1, port ",
                  "(I) run script : " + a.path("services.sh") + "\n",
                  "\t[#015] host_name : " + host_name() + ", service_id : SVC15, limit : 15\n",
                  "######### element_num string : 015\n",
                  "(I) Send Msg To Server (-> UPDATE_SERVICE_LIST_REQ )",
                  "(I) Receive Msg From Server (<- UPDATE_SERVICE_LIST_RSP )",
                  "(I) Update Service List Complete.", "\t[#016] host_name : "}));
    server.change([](auto& options) { options.update_result = '7'; });
    upload();
    EXPECT_EQ(server.count(UPDATE), 3u); // it goes on when they are refused
    EXPECT_EQ(a.count_log("<!> Update Service List Fail. Result Code : '7'"), 3u);
    EXPECT_EQ(a.count_log("(I) Total [31] Services Server Update, Success.."), 1u);
}

TEST_F(ServiceUpload, TakesTwoWordsOfALine) {
    const std::string wide(508, 'x'); // the second piece starts in the limit's line
    a.write_file("list", "first 1\nlone\x1bly\n\n  \ttabs\t\v22  third word\r\n"
                         "a_service_id_beyond_16 12345678901234\n" +
                             wide + " 9 pieces\n" + std::string(600, ' ') + "late 5\nunended 7");
    write_script("cat " + a.path("list"));
    start();
    upload();
    const TCP_CMD_MSG got = server.wait_for(UPDATE).value().frame;
    TCP_CMD_MSG wanted = kessctl::start_frame(UPDATE);
    auto& body = wanted.body.update_service_list_req;
    body.result_code[0] = '3';
    std::memcpy(body.element_num, "006", 4);
    const char* const ids[] = {"first", "tabs",   "a_service_id_bey", "xxxxxxxxxxxxxxxx",
                               "late",  "unended"};
    const char* const limits[] = {"1", "22", "1234567890", "9", "5", "7"};
    for (std::size_t i = 0; i < std::size(ids); ++i) {
        std::strcpy(body.elements[i].host_name, host_name().c_str());
        std::strcpy(body.elements[i].service_id, ids[i]);
        std::strcpy(body.elements[i].limit, limits[i]);
    }
    EXPECT_EQ(std::memcmp(&got, &wanted, sizeof wanted), 0);
    const std::string skipped = "<!> SKIP.. DATA -> fail get service, format string : ";
    EXPECT_EQ(a.count_log(skipped), 4u);
    EXPECT_TRUE(
        in_order(a, {"\t[#001]", skipped + "lone\\x1bly\n", skipped + "\n", "\t[#002]", "\t[#004]",
                     skipped + "pieces\n", skipped + std::string(511, ' ') + "\n", "\t[#005]",
                     "\t[#006] host_name : " + host_name() + ", service_id : unended, limit : 7\n",
                     "(I) Total [6] Services Server Update, Success.."}));
}

TEST_F(ServiceUpload, StopsAtABrokenServer) {
    const kessctl::answer_fault closing = {.close_after_bytes = 100};
    const std::string error = "<!> shcmd_service_list";
    const std::tuple<kessctl::answer_fault, int, std::string> cases[] = {
        {closing, 3, error + "1, server recv error.. rlen : 0"},
        {closing, 20, error + "2, server recv error.. rlen : 0"},
        {{.wrong_type = 'B'}, 3, "<!> Response Msg MisMatch Type : 'B'"},
        {{.wrong_type = 'B'}, 20, "<!> Response Msg MisMatch Type : 'B'"},
        {{.silent = true}, 3, error + "1, server recv error.. rlen : -2"}, // after ten seconds
        {{.wrong_magic = true}, 20, "<!> magic bit mismatch. sockfd : "}};
    start();
    server.forget_messages();
    for (const auto& [fault, count, line] : cases) {
        SCOPED_TRACE(line);
        set_fault(UPDATE, fault);
        const std::string over = a.path("over" + std::to_string(server.count(UPDATE)));
        write_script("trap '' PIPE; " + lines(count) + "; exec >&-; sleep 0.5; touch " + over);
        trigger();
        EXPECT_TRUE(a.wait_log(line));
        EXPECT_TRUE(!fault.wrong_magic || std::filesystem::exists(over)); // the script has ended
        EXPECT_EQ(a.count_log("(I) Send Msg To Server"), 1u);
    }
    EXPECT_EQ(server.count(UPDATE), std::size(cases));
    EXPECT_EQ(server.count(MSG_GET_SERVICE_LIST_REQ), 0u); // no retrieval followed
    set_fault(UPDATE, {});
    upload();
    EXPECT_EQ(a.count_log("(I) Total [20] Services Server Update, Success.."), 1u);
}

TEST_F(ServiceUpload, RetrievesAllTheSameWhenNobodyTakesTheConnection) {
    start();
    server.stop();
    trigger();
    EXPECT_TRUE(a.wait_log(THREAD_END));
    EXPECT_TRUE(in_order(a, {"<!> server connection fail. (ip 127.0.0.1, port " +
                                 std::to_string(server.port()) + ")\n", // no blank at the end
                             ENDED, "(i) get service list thread is starting..",
                             "<!> server connection fail. (ip 127.0.0.1, port "}));
    EXPECT_EQ(a.count_log("run script"), 0u);
}

TEST_F(ServiceUpload, EndsWhileTheScriptHangs) {
    write_script(lines(14) + "; printf 'half of 1'; exec sleep 300");
    start();
    trigger();
    EXPECT_TRUE(a.wait_log("\t[#014]"));
    expect_end();
    EXPECT_TRUE(
        in_order(a, {"[ kessard ] end.. resource clear.", "(I) completed join st_log.",
                     "(I) completed join health_check.", "(I) completed join shcmd_service_list.",
                     "[ kessard ] end.. complete."}));
    EXPECT_EQ(a.count_log(ENDED), 0u);
    EXPECT_EQ(server.count(UPDATE), 0u);

    set_fault(UPDATE, {.wrong_type = 'B'}); // it lets go of the server before the script ends
    write_script(lines(15) + "; exec sleep 300");
    start();
    trigger();
    EXPECT_TRUE(server.wait_open_connections(1)); // the health check's
    EXPECT_EQ(a.stop(), 0);
}

TEST_F(ServiceUpload, KeepsATriggerThatComesMeanwhile) {
    write_script("while [ ! -e " + a.path("gate") + " ]; do sleep 0.05; done; echo gate 1");
    start();
    trigger();
    a.write_file("svc_update", "");
    pass_time(2500); // two looks at least
    EXPECT_TRUE(std::filesystem::exists(a.path("svc_update")));
    a.write_file("gate", "");
    EXPECT_TRUE(server.wait_for(UPDATE, 2));
}

TEST_F(ServiceUpload, RunsAtTheDailyTimeToo) {
    a.set("SERVICE_HASH", "DAILY_UPDATE_HHMI", "0000");
    write_script("echo daily 1");
    start_running(a);
    EXPECT_TRUE(server.wait_for(UPDATE) && a.wait_log(THREAD_END, 2));
    EXPECT_TRUE(in_order(a, {"(I) time over!! start update service hhmi(0000)", STARTED, ENDED}));
}

} // namespace
