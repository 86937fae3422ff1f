// Command messages by name, services as text, and the stand-in server that answers with them.
#include "frame.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>

#include "command_client.h"
#include "field.h"
#include "service_file.h"
#include "stand_in.h"
#include "wait.h"

namespace {

using namespace kessctl;

struct known_message {
    char type;
    const char* name;
    char response;
    std::size_t record_size;
};

const known_message MESSAGES[] = {
    {'0', "HEALTH_CHECK_REQ", '1', sizeof(BODY_HEALTH_CHECK_REQ)},
    {'1', "HEALTH_CHECK_RSP", 0, sizeof(BODY_HEALTH_CHECK_RSP)},
    {'2', "RENEW_SERVICE_LIST_REQ", '3', sizeof(BODY_RENEW_SERVICE_LIST_REQ)},
    {'3', "RENEW_SERVICE_LIST_RSP", 0, sizeof(BODY_RENEW_SERVICE_LIST_RSP)},
    {'4', "GET_SERVICE_LIST_REQ", '5', sizeof(BODY_GET_SERVICE_LIST_REQ)},
    {'5', "GET_SERVICE_LIST_RSP", 0, sizeof(BODY_GET_SERVICE_LIST_RSP)},
    {'6', "GET_SERVICE_LIST_RSPACK", 0, sizeof(BODY_GET_SERVICE_LIST_RSPACK)},
    {'7', "SET_SYS_CONFIG_SET_REQ", '8', sizeof(BODY_SET_SYS_CONFIG_SET_REQ)},
    {'8', "SET_SYS_CONFIG_SET_RSP", 0, sizeof(BODY_SET_SYS_CONFIG_SET_RSP)},
    {'9', "UPDATE_SERVICE_LIST_REQ", 'A', sizeof(BODY_UPDATE_SERVICE_LIST_REQ)},
    {'A', "UPDATE_SERVICE_LIST_RSP", 0, sizeof(BODY_UPDATE_SERVICE_LIST_RSP)},
    {'B', "SET_MODIFIED_SERVICE_REQ", 'C', sizeof(BODY_SET_MODIFIED_SERVICE_REQ)},
    {'C', "SET_MODIFIED_SERVICE_RSP", 0, sizeof(BODY_SET_MODIFIED_SERVICE_RSP)},
    {'D', "SET_SYS_RESOURCE_SET_REQ", 'E', sizeof(BODY_SET_SYS_RESOURCE_SET_REQ)},
    {'E', "SET_SYS_RESOURCE_SET_RSP", 0, sizeof(BODY_SET_SYS_RESOURCE_SET_RSP)},
    {'F', "NOTIFY_ACTIVE_SERVICE_DETAIL_REQ", 'G', sizeof(BODY_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ)},
    {'G', "NOTIFY_ACTIVE_SERVICE_DETAIL_RSP", 0, sizeof(BODY_NOTIFY_ACTIVE_SERVICE_DETAIL_RSP)},
    {'H', "DEVICE_INFO_REQ", 'I', sizeof(BODY_DEVICE_INFO_REQ)},
    {'I', "DEVICE_INFO_RSP", 0, sizeof(BODY_DEVICE_INFO_RSP)},
};

std::vector<SERVICE_ELEMENT> numbered_services(int count) {
    std::vector<SERVICE_ELEMENT> services;
    for (int i = 1; i <= count; ++i)
        services.push_back(make_service("SERVICE" + std::to_string(i)));
    return services;
}

TEST(Frame, NamesEveryMessageAndDecodesEveryByteOfItsRecord) {
    for (const known_message& known : MESSAGES) {
        TCP_CMD_MSG frame = start_frame(known.type);
        std::memset(&frame.body, '9', sizeof frame.body); // counts every element too
        std::size_t decoded_bytes = 0;
        for (const field_value& field : decode(frame))
            decoded_bytes += field.text.size() + 1; // the terminator
        EXPECT_EQ(decoded_bytes, known.record_size) << known.name;
        EXPECT_STREQ(message_name(known.type), known.name);
        EXPECT_EQ(response_type(known.type), known.response) << known.name;
        EXPECT_EQ(is_request(known.type), known.response != 0) << known.name;
    }
    EXPECT_STREQ(message_name('Z'), "UNKNOWN");
    EXPECT_TRUE(decode(start_frame('Z')).empty());
}

TEST(Frame, StartsWithMagicTypeAndZeros) {
    const TCP_CMD_MSG frame = start_frame('7');
    const auto* bytes = reinterpret_cast<const unsigned char*>(&frame);
    const unsigned char head[] = {0x90, 0x85, 0x20, 0x83, '7', 0};
    EXPECT_EQ(std::memcmp(bytes, head, sizeof head), 0);
    EXPECT_EQ(std::count(bytes + sizeof head, bytes + sizeof frame, 0), 1401);
}

TEST(Frame, DecodesNestedRowsWithoutTheirCommas) {
    TCP_CMD_MSG frame = start_frame('0');
    BODY_HEALTH_CHECK_REQ& body = frame.body.health_check_req;
    agt::put_number(body.port, 7000);
    body.port[5] = ',';
    agt::put_percent(body.que_stat[15].log_hashtbl_used_pcnt, 12.5);
    body.que_stat[15].log_hashtbl_used_pcnt[6] = ',';
    agt::put_text(body.api_stat[1].sw_type, "WEB");
    agt::put_text(body.chk_msg, "pulsed 1");
    EXPECT_EQ(field_text(frame, "port"), "07000");
    EXPECT_EQ(field_text(frame, "que_stat[15].log_hashtbl_used_pcnt"), "12.50");
    EXPECT_EQ(field_text(frame, "api_stat[1].sw_type"), "WEB");
    EXPECT_EQ(field_text(frame, "chk_msg"), "pulsed 1");
}

TEST(Frame, ListsOnlyTheElementsThatAreCounted) {
    const struct {
        const char* element_num;
        std::size_t listed;
    } cases[] = {{"000", 0}, {"002", 2}, {"2,x", 2}, {"008", 8}, {"999", 8}, {"-1 ", 0}, {"abc", 0}};
    for (const auto& one : cases) {
        TCP_CMD_MSG frame = service_block_frame(numbered_services(8).data(), 8, false);
        std::memcpy(frame.body.get_service_list_rsp.element_num, one.element_num, 4);
        EXPECT_EQ(decode(frame).size(), 2 + 11 * one.listed) << one.element_num;
    }
    const TCP_CMD_MSG change = modified_services_frame(numbered_services(3).data(), 3);
    EXPECT_EQ(field_text(change, "element_num"), "003");
    EXPECT_EQ(field_text(change, "elements[2].service_id"), "SERVICE3");
    EXPECT_EQ(field_text(change, "elements[2].update_mode"), "A");
    EXPECT_EQ(std::memcmp(change.body.set_modified_service_req.elements[0].service_id, "SERVICE1        ", 17), 0);
}

TEST(Frame, DecodesTheExtendedRequestOverTheHeader) {
    TCP_CMD_MSG frame = start_frame(MSG_EXT_REQ);
    std::memcpy(reinterpret_cast<char*>(&frame) + EXT_REQ_CODE_AT,
                "0001Recho a\x1f"
                "exit 3",
                18);
    EXPECT_STREQ(message_name(MSG_EXT_REQ), "EXT_REQ");
    EXPECT_EQ(field_text(frame, "request_code"), "0001");
    EXPECT_EQ(field_text(frame, "pdu"), "R");
    EXPECT_EQ(printable(field_text(frame, "data")), "echo a\\x1fexit 3");
    std::memset(&frame.body, 'x', sizeof frame.body);
    EXPECT_EQ(field_text(frame, "data").size(), 1397U);
}

TEST(ServiceFile, ReadsEveryKeyAndSaysWhichLineIsWrong) {
    SERVICE_ELEMENT service;
    const std::string line = "ORDER01 host=web1 server=S1 limit=5 depth=3 call_limit=10 dbio_limit=20 sql_limit=30 "
                             "flags=SQ tflag=2 mode=Y";
    ASSERT_EQ(parse_service(split_words(line), &service), "");
    const TCP_CMD_MSG frame = modified_services_frame(&service, 1);
    std::string texts;
    for (const field_value& field : decode(frame))
        texts += field.text + "|";
    EXPECT_EQ(texts, "001|web1|S1|ORDER01|3|10|20|30|5|SQ|2|Y|");

    const struct {
        const char* text;
        const char* error;
    } cases[] = {
        {"A\n\n  # note\nB limit=1 # note\n", ""},
        {"A\nB limit=x\n", ":2: 'limit=x' is not a number"},
        {"A colour=1\n", ":1: there is no key 'colour'"},
        {"A B\n", ":1: 'B' is not of the form key=value"},
        {"limit=1\n", ":1: a service starts with its id"},
        {"ABCDEFGHIJKLMNOPQ\n", ":1: the id 'ABCDEFGHIJKLMNOPQ' is longer than 16 characters"},
        {"A flags=SEVBCIXQQ\n", ":1: 'flags=SEVBCIXQQ' is longer than 8 characters"},
    };
    char path[] = "/tmp/kt.XXXXXX";
    close(mkstemp(path));
    for (const auto& one : cases) {
        std::ofstream(path) << one.text;
        std::vector<SERVICE_ELEMENT> services;
        const std::string wrong = read_service_file(path, &services);
        EXPECT_EQ(wrong, *one.error == '\0' ? "" : path + std::string(one.error));
        if (wrong.empty()) {
            EXPECT_EQ(services.size(), 2U);
        }
    }
    std::remove(path);
}

class StandIn : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(server_.start("127.0.0.1", 0, {}), "");
        ASSERT_TRUE(client_.connect("127.0.0.1", server_.port())) << client_.error();
    }

    // The whole list as an agent fetches it; the last answer is left in `block`.
    std::vector<std::string> fetch(TCP_CMD_MSG* block) {
        std::vector<std::string> ids;
        bool more = client_.send(start_frame('4'));
        while (more && client_.receive(block) && block->hdr.msg_type[0] == '5') {
            for (const field_value& field : decode(*block))
                if (field.name.ends_with("service_id"))
                    ids.push_back(field.text);
            more = client_.send(start_frame('6')) && field_text(*block, "result_code") != "5";
        }
        return ids;
    }

    stand_in server_;
    command_client client_;
};

TEST_F(StandIn, AnswersEveryKindOfRequest) {
    server_.change([](stand_in_options& options) {
        options.update_result = '7';
        options.svr_gap_time = "-12";
    });
    const struct {
        char type;
        const char* result;
    } cases[] = {{'H', "0"}, {'0', "0"}, {'F', "0"}, {'9', "7"}, {'4', "5"}};
    for (const auto& one : cases) {
        TCP_CMD_MSG answer;
        ASSERT_TRUE(client_.request(start_frame(one.type), &answer)) << client_.error();
        EXPECT_EQ(field_text(answer, "result_code"), one.result) << one.type;
        if (one.type == '0') {
            EXPECT_EQ(field_text(answer, "svr_gap_time"), "-12");
        }
    }
    EXPECT_EQ(server_.messages().size(), std::size(cases));
    EXPECT_EQ(server_.wait_for('F')->connection, 1);
}

TEST_F(StandIn, SendsTheServiceListInBlocksOfEight) {
    for (const int count : {0, 1, 8, 9, 17}) {
        server_.set_services(numbered_services(count));
        server_.forget_messages();
        TCP_CMD_MSG last;
        const std::vector<std::string> ids = fetch(&last);
        ASSERT_EQ(ids.size(), static_cast<std::size_t>(count));
        for (int i = 0; i < count; ++i)
            EXPECT_EQ(ids[static_cast<std::size_t>(i)], "SERVICE" + std::to_string(i + 1));
        const auto blocks = static_cast<std::size_t>(count == 0 ? 1 : (count + 7) / 8);
        EXPECT_TRUE(server_.wait_for('6', blocks).has_value());
        EXPECT_EQ(server_.count('6'), blocks);
        EXPECT_EQ(field_text(last, "result_code"), "5");
    }
}

TEST_F(StandIn, WaitsForTheAcknowledgementBeforeTheNextBlock) {
    server_.set_services(numbered_services(9));
    TCP_CMD_MSG block;
    ASSERT_TRUE(client_.request(start_frame('4'), &block));
    EXPECT_EQ(field_text(block, "result_code"), "0");
    EXPECT_FALSE(client_.receive(&block, 100));
    ASSERT_TRUE(client_.send(start_frame('6')) && client_.receive(&block));
    EXPECT_EQ(field_text(block, "elements[0].service_id"), "SERVICE9");
}

TEST_F(StandIn, SpoilsAnswersAsAsked) {
    TCP_CMD_MSG answer;
    const auto with = [&](const answer_fault& fault, int limit_ms = COMMAND_LIMIT_MS) {
        server_.change([&](stand_in_options& options) { options.faults['0'] = fault; });
        return client_.request(start_frame('0'), &answer, limit_ms);
    };
    EXPECT_FALSE(with({.garbage = true}));
    EXPECT_EQ(answer.hdr.magic_bit[0], '?');
    EXPECT_FALSE(with({.wrong_magic = true}));
    EXPECT_EQ(answer.hdr.msg_type[0], '1');
    EXPECT_FALSE(with({.wrong_type = '3'}));
    EXPECT_EQ(answer.hdr.msg_type[0], '3');
    EXPECT_TRUE(with({.split_after_bytes = 700, .pause_ms = 50})) << client_.error();
    EXPECT_TRUE(client_.request(start_frame('H'), &answer)) << "another type has no fault";
    const long long before_ms = agt::monotonic_ms();
    EXPECT_TRUE(with({.delay_ms = 100})) << client_.error();
    EXPECT_GE(agt::monotonic_ms() - before_ms, 100);
    EXPECT_FALSE(with({.silent = true}, 200));
    EXPECT_EQ(client_.error().substr(0, 52), "waiting for the answer: no end within the time limit");
    EXPECT_TRUE(with({})) << client_.error();
    EXPECT_FALSE(with({.close_after_bytes = 10}));
    EXPECT_NE(client_.error().find("closed the connection"), std::string::npos) << client_.error();
}

TEST_F(StandIn, SendsRawBlocksAndLetsTheHookReplaceAnswers) {
    TCP_CMD_MSG block = service_block_frame(numbered_services(8).data(), 8, true);
    std::memcpy(block.body.get_service_list_rsp.element_num, "012", 4);
    server_.change([&](stand_in_options& options) {
        options.raw_blocks = {block};
        options.hook = [](const exchange& now, std::string& answer) {
            if (now.request.hdr.msg_type[0] == 'H' && now.nth == 2)
                answer[offsetof(TCP_CMD_MSG, body)] = '9';
        };
    });
    TCP_CMD_MSG answer;
    ASSERT_TRUE(client_.request(start_frame('4'), &answer));
    EXPECT_EQ(field_text(answer, "element_num"), "012");
    EXPECT_TRUE(client_.request(start_frame('H'), &answer) && field_text(answer, "result_code") == "0");
    EXPECT_TRUE(client_.request(start_frame('H'), &answer) && field_text(answer, "result_code") == "9");
}

TEST_F(StandIn, ClosesConnectionsRefusesThemAndStopsReading) {
    TCP_CMD_MSG answer;
    server_.change([](stand_in_options& options) { options.close_after_messages = 1; });
    EXPECT_TRUE(client_.request(start_frame('0'), &answer));
    EXPECT_TRUE(client_.wait_closed());
    EXPECT_TRUE(server_.wait_open_connections(0));
    server_.change([](stand_in_options& options) { options.close_after_messages = -1; });

    const int port = server_.port();
    server_.close_listener();
    EXPECT_FALSE(client_.connect("127.0.0.1", port));
    EXPECT_NE(client_.error().find("Connection refused"), std::string::npos) << client_.error();
    ASSERT_EQ(server_.open_listener(), "");
    EXPECT_EQ(server_.port(), port);
    ASSERT_TRUE(client_.connect("127.0.0.1", port)) << client_.error();
    EXPECT_TRUE(server_.wait_connections(2));

    server_.change([](stand_in_options& options) { options.stop_reading = true; });
    EXPECT_FALSE(client_.request(start_frame('0'), &answer, 100));
    EXPECT_EQ(server_.count('0'), 1U);
    server_.change([](stand_in_options& options) { options.stop_reading = false; });
    EXPECT_TRUE(client_.receive(&answer)) << client_.error();
    server_.drop_connections();
    EXPECT_TRUE(client_.wait_closed());
}

TEST_F(StandIn, ServesManyConnectionsAndStopsWhileTheyWait) {
    server_.change([](stand_in_options& options) { options.faults['H'].delay_ms = 60000; });
    command_client clients[8];
    for (command_client& client : clients) {
        TCP_CMD_MSG answer;
        ASSERT_TRUE(client.connect("127.0.0.1", server_.port()) && client.request(start_frame('0'), &answer));
        ASSERT_TRUE(client.send(start_frame('H')));
    }
    EXPECT_TRUE(server_.wait_for('H', std::size(clients)).has_value());
    const long long before_ms = agt::monotonic_ms();
    server_.stop();
    EXPECT_LT(agt::monotonic_ms() - before_ms, 5000);
    for (command_client& client : clients)
        EXPECT_TRUE(client.wait_closed());
}

} // namespace
