// The command port through the real program: every command byte for byte, every broken protocol.
#include "served_agent.h"

namespace {

using namespace test_support;
using kessctl::command_client;
using kessctl::start_frame;

// Fills a field to its last byte: the text, then `pad`.
template <std::size_t N> void fill(char (&field)[N], const std::string& text, char pad = ' ') {
    std::memset(field, pad, N);
    std::memcpy(field, text.data(), std::min(N, text.size()));
}

const std::string NONE_WRONG("0\0", 2); // result_code

class Commands : public served_agent {
  protected:
    Commands() {
        a.set("PTRC_HASH", "TRC_STS_CHECK_PERIOD", 0); // what lines come by themselves
        a.unset("KESSARD", "WORKER_CHECK_INTERVAL");
        start();
        EXPECT_TRUE(a.wait_log("device info send complete"));
    }

    // Sends a request and checks all 1407 bytes of the answer; `body` starts it, zeros follow.
    void expect_answer(const TCP_CMD_MSG& request, char type, const std::string& body) {
        ASSERT_TRUE(ask(request)) << client.error();
        TCP_CMD_MSG wanted = start_frame(type);
        std::memcpy(&wanted.body, body.data(), body.size());
        EXPECT_EQ(std::memcmp(&answer, &wanted, sizeof answer), 0);
    }
};

TEST_F(Commands, SetTheRuntimeSettings) {
    // DBIO_TRC_LIMIT has a '1' in front of CALL_TRC_LIMIT, SQL_TRC_LIMIT a '2'.
    const std::pair<texts, TRAN_LOGF_QUE_INFO> cases[] = {
        {{"SEVBCIXQ", "16", "1", "1", "5", "100"},
         {16, 15, 0xAAAAAAAA, 0xff, {}, 5, 100, 1100, 2100, 1, 0, 0, {}}},
        {{"sevb SQ", "3", "0", "0", "-1", "-7"}, {16, 15, 0, 0x81, {}, -1, -7, 1, 2, 0, 0, 0, {}}},
        {{"", "1", "2", "9", "00042", " 8 "}, {1, 0, 2, 0, {}, 42, 8, 1, 2, 9, 0, 0, {}}},
        {{"Q", "08", "x", "y", "9", "9999999999"},
         {8, 7, 0, 128, {}, 9, 9999999999, 1999999999, 2999999999, 0, 0, 0, {}}},
        {{"S,S", "2x", "-", "-", "", ""}, {2, 1, 0, 0x01, {}, 0, 0, 1, 2, 0, 0, 0, {}}},
        {{"", "17", "1", "1", "1", "1"}, {2, 1, 0xAAAAAAAA, 0, {}, 1, 1, 11, 21, 1, 0, 0, {}}},
        {{"", "-8", "1", "1", "1", "1"}, {2, 1, 0xAAAAAAAA, 0, {}, 1, 1, 11, 21, 1, 0, 0, {}}}};
    for (const auto& [fields, wanted] : cases)
        for (const char pad : {' ', ','}) { // stands in the last byte of every field
            SCOPED_TRACE(testing::PrintToString(fields) + pad);
            TCP_CMD_MSG request = start_frame('7');
            request.hdr.msg_type[1] = 'x';
            auto& body = request.body.set_sys_config_set_req;
            fill(body.ipaddr, "10.0.0.1", pad);
            fill(body.log_flag_set, fields[0], pad);
            fill(body.log_qcnt, fields[1], pad);
            fill(body.log_onoff, fields[2], pad);
            fill(body.sfilter_onoff, fields[3], pad);
            fill(body.call_trc_depth, fields[4], pad);
            fill(body.call_trc_limit, fields[5], pad);
            fill(body.dbio_trc_limit, "1" + fields[5], pad);
            fill(body.sql_trc_limit, "2" + fields[5], pad);
            expect_answer(request, '8', "0");
            EXPECT_EQ(std::memcmp(a.settings(), &wanted, sizeof wanted), 0);
        }
}

TEST_F(Commands, SetTheResourceThresholds) {
    const std::string deep(300, 'd');
    const std::pair<std::string, texts> cases[] = {
        {"/,/home ", {"/", "/home"}},
        {"/,/home", {"/"}},
        {"", {}},
        {" ", {""}},
        {",,x ", {"", "", "x"}},
        {"a,b,c,d,e,f ", {"a", "b", "c", "d", "e"}},
        {deep + "," + deep + " ", {deep.substr(0, 256), deep.substr(0, 256)}},
        {std::string(1025, ','), texts(5)},
        {std::string(1025, 'x'), {}}};
    for (const auto& [list, names] : cases) {
        SCOPED_TRACE(list.substr(0, 20));
        TCP_CMD_MSG request = start_frame('D');
        auto& body = request.body.set_sys_resource_set_req;
        fill(body.cpu_alert_sec, "00060x");
        fill(body.cpu_alert_pcnt, "9999");
        fill(body.file_sys_alert_pcnt, "90,,");
        fill(body.file_sys_list, list, '\0');
        a.segment()->file_system[0].alert_cnt = 5;
        expect_answer(request, 'E', "0");
        const TRAN_AGT_SHM& segment = *a.segment();
        EXPECT_EQ(segment.cpu.alert_sec, 60);
        EXPECT_EQ(segment.cpu.alert_pcnt, 999);
        EXPECT_EQ(segment.file_sys_num, std::ssize(names));
        FILE_SYSTEM wanted[FILE_SYSTEM_MAX] = {};
        for (std::size_t i = 0; i < names.size(); ++i) {
            agt::copy_text(wanted[i].file_system, names[i].c_str());
            wanted[i].alert_pcnt = 90;
        }
        EXPECT_EQ(std::memcmp(segment.file_system, wanted, sizeof wanted), 0);
    }
}

TEST_F(Commands, ChangeServices) {
    // element_num, the services that are there before, the modes of the services 1 to 8, how many
    // are handled, how many entries there are then.
    const std::tuple<const char*, std::string, std::string, const char*, unsigned> cases[] = {
        {"000", "", "AAAAAAAA", "000", 0},  {"abc", "", "AAAAAAAA", "000", 0},
        {"-1 ", "", "AAAAAAAA", "000", 0},  {" 2,", "", "AAAAAAAA", "002", 2},
        {"008", "", "AAAAAAAA", "008", 8},  {"009", "", "AAAAAAAA", "008", 8},
        {"8888", "", "AAAAAAAA", "008", 8}, {"003", "2", "AZAAAAAA", "001", 2},
        {"003", "1", "ZAAAAAAA", "000", 1}, {"003", "123", "DXYAAAAA", "003", 2},
        {"003", "", "DDAAAAAA", "003", 1},  {"003", "3", "YYZAAAAA", "002", 3}};
    for (const auto& [num, known, modes, handled, entries] : cases) {
        SCOPED_TRACE(std::string(num) + " " + known + " " + modes);
        std::vector<SERVICE_ELEMENT> before = services(8);
        std::vector<SERVICE_ELEMENT> sent = before;
        for (std::size_t i = 0; i < 8; ++i) {
            const char number = static_cast<char>('1' + i);
            before[i].update_mode[0] = known.find(number) == known.npos ? 'D' : 'A';
            sent[i].update_mode[0] = modes[i];
        }
        EXPECT_TRUE(ask(kessctl::modified_services_frame(before.data(), before.size())));
        TCP_CMD_MSG request = kessctl::modified_services_frame(sent.data(), sent.size());
        std::memcpy(request.body.set_modified_service_req.element_num, num, 4);
        expect_answer(request, 'C', NONE_WRONG + handled);
        EXPECT_EQ(a.services()->alloc_cnt, entries);
        EXPECT_EQ(table_fault(*a.services()), "");
    }
    expect_answer(start_frame('7'), '8', NONE_WRONG + "002"); // what earlier answers left stays
}

// All that a request and its answer leave in the log. Bytes of the sender make no lines.
TEST_F(Commands, LogTheRequestThenWhatTheyDidThenTheAnswer) {
    const std::string ten(10, '8');
    TCP_CMD_MSG config = start_frame('7');
    std::memset(&config.body, '8', sizeof config.body); // no terminator anywhere
    config.body.set_sys_config_set_req.log_onoff[0] = '\r';
    TCP_CMD_MSG resource = start_frame('D');
    std::memset(&resource.body, '9', sizeof resource.body);
    fill(resource.body.set_sys_resource_set_req.file_sys_list, "/\n11-23\x7f,/h\xc3\xb6me ", '\0');
    SERVICE_ELEMENT elements[2]; // that of a new service twice
    std::memset(elements, '5', sizeof elements);
    elements[0].service_id[3] = elements[1].service_id[3] = elements[1].update_mode[0] = '\n';
    const std::string id = "555\\x0a" + std::string(12, '5');
    const std::pair<TCP_CMD_MSG, texts> cases[] = {
        {config,
         {"(i) MSGRCV : [[ SET_SYS_CONFIG_SET_REQ ]]", "(i) -> IPADDR         - '" + ten + "88888'",
          "(i) -> LOG_FLAG_SET   - '88888888'", "(i) -> LOG_QCNT       - '888'",
          "(i) -> LOG_ONOFF      - '\\x0d'", "(i) -> SFILTER_ONOFF  - '8'",
          "(i) -> CALL_TRC_DEPTH - '88888'", "(i) -> CALL_TRC_LIMIT - '" + ten + "'",
          "(i) -> DBIO_TRC_LIMIT - '" + ten + "'", "(i) -> SQL_TRC_LIMIT  - '" + ten + "'",
          "(i) MSGSND : [[ SET_SYS_CONFIG_SET_RSP ]]", "(i) -> RESULT_CODE - '0'"}},
        {resource,
         {"(i) MSGRCV : [[ SET_SYS_RESOURCE_SET_REQ ]]", "(i) -> CPU_ALERT_SEC       - '99999'",
          "(i) -> CPU_ALERT_PCNT      - '999'", "(i) -> FILE_SYS_ALERT_PCNT - '999'",
          "(i) -> MAX_FILE_SYS_LIST   - '/\\x0a11-23\\x7f,/h\xc3\xb6me '", "## file_sys_num : 2",
          "#0# file_system : /\\x0a11-23\\x7f", "#0# alert_pcnt : 999", "#0# alert_cnt : 0",
          "#1# file_system : /h\xc3\xb6me", "#1# alert_pcnt : 999", "#1# alert_cnt : 0",
          "(i) MSGSND : [[ SET_SYS_RESOURCE_SET_RSP ]]", "(i) -> RESULT_CODE - '0'"}},
        {start_frame('2'),
         {"(i) MSGRCV : [[ RENEW_SERVICE_LIST_REQ ]]", "(i) MSGSND : [[ RENEW_SERVICE_LIST_RSP ]]",
          "(i) -> RESULT_CODE - '0'", "(i) get service list thread is starting..",
          "(i) MSGRCV : [[ GET_SERVICE_LIST_RSP ]]", "(i) -> ELEMENT_NUM - '000'",
          "------------------------ SERVICE HASH TABLE ----------------------------",
          "alloc_cnt : 0, used.top : 0", "", THREAD_END}},
        {kessctl::modified_services_frame(elements, 2),
         {"(i) MSGRCV : [[ SET_MODIFIED_SERVICE_REQ ]]", "(I) SERVICE_ID : " + id,
          "(I) SERVICE_ID : " + id,
          "<!> service_id(" + id + ") is already exist, update_mode : '\\x0a'",
          "(i) MSGSND : [[ SET_MODIFIED_SERVICE_RSP ]]", "(i) -> RESULT_CODE - '0'"}}};
    for (const auto& [request, lines] : cases) {
        a.mark_log();
        EXPECT_TRUE(ask(request) && a.wait_log(lines.back())) << client.error();
        EXPECT_EQ(messages(a.log()), lines);
    }
}

TEST_F(Commands, AreRefusedWhenTheyBreakTheProtocol) {
    a.mark_log();
    for (const char type : std::string("0134568 9ACEFGHIz\0\1\xff", 20)) {
        EXPECT_TRUE(client.send(start_frame(type)) && client.wait_closed()) << client.error();
        EXPECT_TRUE(a.wait_log("<!> error! unknown command type('" +
                               kessctl::printable({&type, 1}) + "')\n"));
        reconnect();
    }
    for (std::size_t i = 0; i < 4; ++i) {
        TCP_CMD_MSG frame = start_frame('7');
        frame.hdr.magic_bit[i] ^= 1;
        EXPECT_TRUE(client.send(frame) && client.wait_closed()) << client.error();
        reconnect();
    }
    EXPECT_TRUE(a.wait_log("<!> magic bit mismatch. sockfd : ", 4));
    EXPECT_EQ(a.count_log(", rlen : 1407\n"), 4u);
    EXPECT_TRUE(answers(a) && table_fault(*a.services()).empty());
}

TEST_F(Commands, ServeFiveClientsAndNoSixth) {
    command_client others[4];
    const auto served = [&](command_client& one) { return one.request(start_frame('7'), &answer); };
    for (command_client& other : others)
        EXPECT_TRUE(other.connect("127.0.0.1", a.port()) && served(other));
    command_client sixth;
    EXPECT_TRUE(sixth.connect("127.0.0.1", a.port()) && sixth.wait_closed()) << sixth.error();
    EXPECT_TRUE(a.wait_log("<!> client_list error.. client_num : 5\n"));
    for (command_client& other : others)
        EXPECT_TRUE(served(other)) << other.error();
    EXPECT_TRUE(renew()) << client.error();
    others[1].close();
    EXPECT_TRUE(wait_until([&] { return sixth.connect("127.0.0.1", a.port()) && served(sixth); }));
}

TEST_F(Commands, ComeTogetherOrInPieces) {
    const TCP_CMD_MSG both[2] = {start_frame('2'), start_frame('D')};
    EXPECT_TRUE(client.send_bytes(both, sizeof both));
    for (const char type : {'3', 'E'}) {
        EXPECT_TRUE(client.receive(&answer)) << client.error();
        EXPECT_EQ(answer.hdr.msg_type[0], type);
        EXPECT_EQ(kessctl::field_text(answer, "result_code"), "0");
    }
    for (std::size_t i = 0; i < sizeof both[0]; ++i)
        ASSERT_TRUE(client.send_bytes(reinterpret_cast<const char*>(both) + i, 1));
    EXPECT_TRUE(client.receive(&answer)) << client.error();

    EXPECT_TRUE(client.send_bytes(both, 700));
    EXPECT_TRUE(answers(a)); // who has to wait for the stalled frame, but not for long
    EXPECT_TRUE(client.wait_closed()) << client.error();
}

TEST_F(Commands, GiveUpAClientThatNeverReads) {
    const TCP_CMD_MSG request = start_frame('D');
    const int small = 1;
    setsockopt(client.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    const int flags = MSG_DONTWAIT | MSG_NOSIGNAL;
    std::size_t at = 0;          // of the next byte in its frame
    EXPECT_TRUE(wait_until([&] { // the daemon takes no more
        const char* bytes = reinterpret_cast<const char*>(&request);
        ssize_t sent = 0;
        while ((sent = send(client.fd(), bytes + at, sizeof request - at, flags)) > 0)
            at = (at + static_cast<std::size_t>(sent)) % sizeof request;
        return a.count_log("<!> tcp send error.. slen : -1\n") == 1;
    }));
    EXPECT_TRUE(answers(a) && table_fault(*a.services()).empty());
}

} // namespace
