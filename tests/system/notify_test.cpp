// Active-service notifications through the real program: batches, the link going down and coming back.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <csignal>
#include <cstring>
#include <thread>

#include "check_network.h"
#include "checks.h"
#include "command_client.h"
#include "frame.h"
#include "full_listener.h"
#include "process_globals.h"
#include "ring_queue.h"
#include "stand_in.h"

namespace {

using namespace test_support;
using kessctl::stand_in;

constexpr char NOTIFY = MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ;
constexpr char LINK_UP[] = "(I) notify socket reconnect success";

ACTIVE_SERVICE_DETAIL make_record(int number) {
    ACTIVE_SERVICE_DETAIL record;
    std::memset(&record, 'a' + number % 26, sizeof record); // any bytes go through
    std::snprintf(record.call_seq, sizeof record.call_seq, "%06d", number);
    return record;
}

// Puts the records first..last on the queue with one store of `rear`, so that the notifier finds them together.
void put(NOTI_SEND_QUE* queue, int first, int last) {
    int rear = queue->info.rear;
    for (int number = first; number <= last; ++number) {
        rear = kessard::ring_next<NOTI_SEND_QUE>(rear);
        queue->data[rear].act_svc_dtl = make_record(number);
    }
    kessard::shared_store(queue->info.rear, rear, std::memory_order_release);
}

bool is_empty(const NOTI_SEND_QUE* queue) {
    return kessard::ring_empty(*queue);
}

// The frame that carries `count` records from `first` on; `tail` is what the second element still holds.
TCP_CMD_MSG notify_frame(int first, int count, int tail = 0) {
    TCP_CMD_MSG frame = kessctl::start_frame(NOTIFY);
    auto& body = frame.body.notify_active_service_detail_req;
    std::snprintf(body.element_num, sizeof body.element_num, "%03d", count);
    body.elements[0] = make_record(first);
    if (count == 2 || tail != 0)
        body.elements[1] = make_record(count == 2 ? first + 1 : tail);
    return frame;
}

// The numbers of the records in a message.
texts numbers(const TCP_CMD_MSG& frame) {
    texts found;
    for (const kessctl::field_value& field : kessctl::decode(frame))
        if (field.name.ends_with("call_seq"))
            found.push_back(field.text);
    return found;
}

// An agent whose notify link is on, and the server it talks to.
class Notify : public testing::Test {
  protected:
    stand_in server;
    agent a;
    NOTI_SEND_QUE* queue = nullptr;

    void start() {
        if (server.port() == 0) {
            ASSERT_EQ(server.start(), "");
            a.set("TRAN_SERVER", "CMD_PORT", server.port());
        }
        a.set("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", 3000);
        start_running(a);
        queue = a.noti_que();
        ASSERT_NE(queue, nullptr);
        ASSERT_TRUE(a.wait_log("(i) notify_active_service_detail thread start... running : 1"));
    }
    void set_fault(const kessctl::answer_fault& fault) {
        server.change([&](kessctl::stand_in_options& options) { options.faults[NOTIFY] = fault; });
    }
    void expect_message(std::size_t nth, const TCP_CMD_MSG& wanted) {
        const auto message = server.wait_for(NOTIFY, nth);
        ASSERT_TRUE(message) << "message " << nth;
        EXPECT_EQ(std::memcmp(&message->frame, &wanted, sizeof wanted), 0) << "message " << nth;
    }
};

void expect_orderly_end(agent& a) {
    const long long start_ms = agt::monotonic_ms();
    EXPECT_EQ(a.stop(), 0);
    EXPECT_LT(agt::monotonic_ms() - start_ms, 8000);
    EXPECT_TRUE(in_order(a.log(), {">> received SIGTERM signal to terminate!", "<!> termination start",
                                   "[ kessard ] end.. resource clear.", "(I) completed join st_log.",
                                   "(I) completed join health_check.", "[ kessard ] end.. complete."}));
}

TEST_F(Notify, SendsTwoTogetherAndALoneOneLater) {
    ASSERT_NO_FATAL_FAILURE(start());
    put(queue, 1, 2);
    expect_message(1, notify_frame(1, 2));
    EXPECT_TRUE(a.wait_log("(I) [notify_active_service_detail] sent 2 elements, noti_send_flag : 1"));
    EXPECT_EQ(a.count_log("[notify_active_service_detail] socket send : 2 elements, ACTIVE_SERVICE_DETAIL size 614 "
                          "bytes"),
              1u);
    const auto stay_quiet = [] {
        const long long from_ms = agt::monotonic_ms();
        ASSERT_TRUE(wait_until([&] { return agt::monotonic_ms() - from_ms >= 3100; }));
    };
    stay_quiet();
    const long long sent_ms = agt::monotonic_ms();
    put(queue, 3, 5); // the third of them follows closely on a message
    expect_message(2, notify_frame(3, 2));
    expect_message(3, notify_frame(5, 1, 4));
    EXPECT_GE(agt::monotonic_ms() - sent_ms, 1000);
    const std::string flushed = "flush sent 1 elements, noti_send_flag : 1, flush_time(";
    EXPECT_TRUE(a.wait_log(flushed + "2 sec)"));

    stay_quiet();
    const long long quiet_ms = agt::monotonic_ms();
    put(queue, 6, 6); // leaves at the first empty poll
    expect_message(4, notify_frame(6, 1, 4));
    EXPECT_LT(agt::monotonic_ms() - quiet_ms, 900);
    EXPECT_TRUE(a.wait_log(flushed, 2));
    expect_orderly_end(a);
}

TEST_F(Notify, WaitsWithTheVeryFirstRecord) {
    ASSERT_NO_FATAL_FAILURE(start());
    const long long start_ms = agt::monotonic_ms();
    put(queue, 1, 1);
    expect_message(1, notify_frame(1, 1));
    EXPECT_GE(agt::monotonic_ms() - start_ms, 1000);
}

TEST_F(Notify, ForwardsManyRecordsInTheirOrder) {
    ASSERT_NO_FATAL_FAILURE(start());
    const program_result put = run_program(
        {KESSCTL_PROGRAM, "put-notification", "--count", "1001", "--service", "PAY", "--pid", "77"}, a.variables);
    EXPECT_EQ(put.status, 0);
    EXPECT_EQ(put.out, "1001 records put, 0 did not fit\n");
    ASSERT_TRUE(server.wait_for(NOTIFY, 501));
    int next = 1;
    for (const kessctl::received_message& message : server.messages())
        for (const std::string& number : message.frame.hdr.msg_type[0] == NOTIFY ? numbers(message.frame) : texts()) {
            EXPECT_EQ(std::stoi(number), next++);
            EXPECT_EQ(kessctl::field_text(message.frame, "elements[0].service_id"), "PAY");
            EXPECT_EQ(kessctl::field_text(message.frame, "elements[0].pid"), "77");
        }
    EXPECT_EQ(next, 1002);
}

TEST_F(Notify, CountsABatchAsSentWhenTheAnswerFails) {
    ASSERT_NO_FATAL_FAILURE(start());
    kessctl::answer_fault closed;
    closed.close_after_bytes = 0;
    set_fault(closed);
    put(queue, 1, 2);
    EXPECT_TRUE(a.wait_log(LINK_UP));
    set_fault({});
    put(queue, 3, 4); // the next batch starts empty
    expect_message(2, notify_frame(3, 2));
    EXPECT_TRUE(a.wait_log("sent 2 elements, noti_send_flag : 1"));
    EXPECT_TRUE(in_order(a.log(), {"<!> noti_sockfd, recv_tcp_data error. rlen : 0\n", "<!> network error\n",
                                   "<!> network error : send_flag off [1]\n", "<!> network error : socket close\n",
                                   "sent 2 elements, noti_send_flag : 0",
                                   "(i) successfully, notify(cmd) port connect [ip 127.0.0.1, port ", LINK_UP,
                                   "<!> network error : send_flag on [1]", "sent 2 elements, noti_send_flag : 1"}));
    set_fault(closed);
    put(queue, 5, 5);
    EXPECT_TRUE(a.wait_log(LINK_UP, 2));
    EXPECT_TRUE(in_order(a.log(), {"<!> noti_sockfd, recv_tcp_data error. rlen : 0(FLUSH)\n",
                                   "flush sent 1 elements, noti_send_flag : 0, flush_time("}));
}

TEST_F(Notify, GivesUpAnAnswerAfterTenSeconds) {
    ASSERT_NO_FATAL_FAILURE(start());
    kessctl::answer_fault silent;
    silent.silent = true;
    set_fault(silent);
    const long long start_ms = agt::monotonic_ms();
    put(queue, 1, 3); // the third is dropped while the link is down, or starts the next batch
    EXPECT_TRUE(a.wait_log("<!> noti_sockfd, recv_tcp_data timeout error.\n"));
    EXPECT_GE(agt::monotonic_ms() - start_ms, 9000);
    EXPECT_TRUE(a.wait_log(LINK_UP));
    set_fault({});
    put(queue, 11, 14);
    EXPECT_TRUE(server.wait_for(NOTIFY, 3));
}

TEST_F(Notify, GivesUpTheAnswerOfAFlushAfterTenSeconds) {
    ASSERT_NO_FATAL_FAILURE(start());
    kessctl::answer_fault silent;
    silent.silent = true;
    set_fault(silent);
    put(queue, 1, 1);
    EXPECT_TRUE(a.wait_log("<!> noti_sockfd, recv_tcp_data timeout error.(FLUSH)\n"));
    EXPECT_TRUE(a.wait_log("flush sent 1 elements, noti_send_flag : 0, flush_time("));
    EXPECT_TRUE(a.wait_log(LINK_UP));
}

TEST_F(Notify, DropsRecordsWhileTheServerIsDown) {
    a.set("TRAN_SERVER", "CMD_PORT", a.server_port());
    ASSERT_EQ(server.start("127.0.0.1", a.server_port()), "");
    server.stop(); // reserves the port's number for later
    ASSERT_NO_FATAL_FAILURE(start());
    const std::string server_text = "127.0.0.1, port " + std::to_string(a.server_port());
    EXPECT_TRUE(a.wait_log("<!> server notify(cmd) port connect fail[ip " + server_text + "]"));
    EXPECT_TRUE(in_order(
        a.log(), {"<!> server notify(cmd) port connect fail(ip : 127.0.0.1, port : " + std::to_string(a.server_port()),
                  "<!> network error\n", "<!> network error : send_flag off [0]\n"}));
    const long long start_ms = agt::monotonic_ms();
    put(queue, 1, 6);
    EXPECT_TRUE(wait_until([&] { return is_empty(queue); }));
    EXPECT_GE(agt::monotonic_ms() - start_ms, 900); // one in 200 ms
    ASSERT_EQ(server.start("127.0.0.1", a.server_port()), "");
    EXPECT_TRUE(a.wait_log("<!> network error : send_flag on [2]"));
    put(queue, 7, 8);
    expect_message(1, notify_frame(7, 2));
}

TEST_F(Notify, StaysOffUntilTheFileSaysOtherwise) {
    ASSERT_EQ(server.start(), "");
    a.set("TRAN_SERVER", "CMD_PORT", server.port());
    start_running(a); // ACTIVE_LIMIT is 0
    queue = a.noti_que();
    EXPECT_TRUE(a.wait_log("(I) Active Service Detail Monitoring OFF.(0ms)"));
    put(queue, 1, 3);
    EXPECT_TRUE(wait_until([&] { return is_empty(queue); }));
    EXPECT_EQ(a.count_log("notify(cmd) port connect"), 0u);
    a.set("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", 1);
    a.write_cfg();
    EXPECT_TRUE(a.wait_log(LINK_UP));
    put(queue, 4, 5);
    expect_message(1, notify_frame(4, 2));
}

TEST_F(Notify, TakesAChangedServerFromTheFile) {
    stand_in other;
    ASSERT_EQ(other.start(), "");
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_TRUE(server.wait_for(MSG_DEVICE_INFO_REQ));
    a.set("TRAN_SERVER", "CMD_PORT", other.port());
    a.write_cfg();
    server.stop();
    put(queue, 1, 2);
    EXPECT_TRUE(a.wait_log(LINK_UP));
    put(queue, 3, 4);
    const auto message = other.wait_for(NOTIFY);
    ASSERT_TRUE(message);
    EXPECT_EQ(numbers(message->frame), (texts{"000003", "000004"}));
    kessctl::command_client client; // the renew command makes the agent fetch the service list
    TCP_CMD_MSG answer;
    ASSERT_TRUE(client.connect("127.0.0.1", a.port()));
    ASSERT_TRUE(client.request(kessctl::start_frame(MSG_RENEW_SERVICE_LIST_REQ), &answer)) << client.error();
    EXPECT_TRUE(other.wait_for(MSG_GET_SERVICE_LIST_REQ));
}

TEST_F(Notify, SurvivesIndexesOutOfRange) {
    ASSERT_NO_FATAL_FAILURE(start());
    int next = 1;
    for (const kessard::ring_indexes bad : {kessard::ring_indexes{32768, 5},
                                            {-1, 5},
                                            {2147483647, 0},
                                            {5, 32768},
                                            {5, -1},
                                            {-2147483647 - 1, 2147483647}}) {
        SCOPED_TRACE(testing::Message() << bad.front << " " << bad.rear);
        queue->info.rear = bad.rear;
        queue->info.front = bad.front;
        const long long start_ms = agt::monotonic_ms();
        EXPECT_TRUE(wait_until([&] { return agt::monotonic_ms() - start_ms > 100; })); // several polls
        const bool mended = bad.rear >= 0 && bad.rear < 32768;
        EXPECT_EQ(queue->info.front, mended ? bad.rear : bad.front);
        queue->info = {0, 0};
        put(queue, next, next + 1);
        ASSERT_TRUE(server.wait_for(NOTIFY, static_cast<std::size_t>(next / 2 + 1)));
        next += 2;
    }
    EXPECT_EQ(numbers(server.messages().back().frame), (texts{"000011", "000012"}));
}

// A peer of the notify link that is cut wherever the test wants. The other reporters talk to the stand-in.
class CutLink : public Notify {
  protected:
    full_listener listener;
    agt::unique_fd link;

    void start() {
        ASSERT_EQ(server.start(), "");
        a.set("TRAN_SERVER", "CMD_PORT", server.port());
        start_running(a);
        ASSERT_TRUE(server.wait_for(MSG_DEVICE_INFO_REQ)); // every other connection stands or has gone
        ASSERT_TRUE(a.wait_log("### get_service_list() ### thread function END..."));
        queue = a.noti_que();
        a.set("TRAN_SERVER", "CMD_PORT", listener.port());
        a.set("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", 3000);
        a.write_cfg();
        ASSERT_NO_FATAL_FAILURE(accept_link(1));
    }
    // Takes the next connection and waits until the agent uses it.
    void accept_link(std::size_t nth) {
        ASSERT_EQ(agt::wait_fd(listener.fd(), POLLIN, LIMIT_MS), agt::wait_result::ready);
        link.reset(accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC));
        ASSERT_TRUE(a.wait_log("<!> network error : send_flag on", nth));
    }
    // Ends the connection with a reset, which the agent's next call on it reports.
    void reset_link() {
        const linger at_once = {1, 0};
        setsockopt(link.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        link.reset();
    }
    TCP_CMD_MSG receive() {
        TCP_CMD_MSG frame{};
        EXPECT_EQ(agt::recv_tcp_data_timeout(link.get(), &frame, sizeof frame, 10), TCP_CMD_MSG_SIZE);
        return frame;
    }
    void answer() {
        const TCP_CMD_MSG frame = kessctl::start_frame(MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_RSP);
        EXPECT_EQ(agt::send_tcp_data(link.get(), &frame, sizeof frame), TCP_CMD_MSG_SIZE);
    }
};

TEST_F(CutLink, LosesABatchThatCannotBeSent) {
    ASSERT_NO_FATAL_FAILURE(start());
    reset_link();
    put(queue, 1, 2);
    accept_link(2);
    EXPECT_TRUE(in_order(a.log(), {"socket send : 2 elements", "<!> noti_sockfd, send_tcp_data error. slen : -1",
                                   "<!> network error : send_flag off [1]", LINK_UP}));
    EXPECT_EQ(a.count_log("sent 2 elements"), 0u);
    put(queue, 3, 4);
    EXPECT_EQ(numbers(receive()), (texts{"000003", "000004"}));
    answer();
    EXPECT_TRUE(a.wait_log("sent 2 elements, noti_send_flag : 1"));
}

TEST_F(CutLink, DropsAFlushThatCannotBeSent) {
    ASSERT_NO_FATAL_FAILURE(start());
    put(queue, 1, 1);
    EXPECT_TRUE(wait_until([&] { return is_empty(queue); }));
    reset_link();
    listener.close(); // nobody takes the link back
    EXPECT_TRUE(a.wait_log("<!> [notify_active_service_detail] flush skip, noti_send_flag : 0"));
    EXPECT_TRUE(in_order(a.log(), {"<!> noti_sockfd, send_tcp_data error. slen : -1", "flush skip"}));
    EXPECT_EQ(a.count_log("flush sent"), 0u);
}

TEST_F(CutLink, OutlivesACutAtAnyByte) {
    const struct {
        int read;    // bytes of the request
        int written; // bytes of the answer
    } cuts[] = {{0, 0}, {1, 0}, {1406, 0}, {1407, 0}, {1407, 1}, {1407, 6}, {1407, 1406}};
    ASSERT_NO_FATAL_FAILURE(start());
    const std::size_t files = open_files(a.pid()).size();
    std::size_t links = 1;
    for (const auto& cut : cuts) {
        SCOPED_TRACE(testing::Message() << cut.read << " read, " << cut.written << " written");
        char bytes[TCP_CMD_MSG_SIZE] = {};
        put(queue, 1, 2);
        if (cut.read > 0) {
            EXPECT_EQ(recv(link.get(), bytes, static_cast<std::size_t>(cut.read), MSG_WAITALL), cut.read);
        }
        if (cut.written > 0) {
            EXPECT_EQ(agt::send_tcp_data(link.get(), bytes, cut.written), cut.written);
        }
        link.reset();
        accept_link(++links);
    }
    EXPECT_EQ(open_files(a.pid()).size(), files);
    put(queue, 3, 4);
    EXPECT_EQ(numbers(receive()), (texts{"000003", "000004"}));
    answer();
    expect_orderly_end(a);
}

TEST_F(CutLink, EndsWhileAnAnswerIsAwaited) {
    ASSERT_NO_FATAL_FAILURE(start());
    put(queue, 1, 2);
    receive();
    expect_orderly_end(a);
}

TEST_F(CutLink, EndsInTheMiddleOfAnAnswer) {
    ASSERT_NO_FATAL_FAILURE(start());
    put(queue, 1, 2);
    receive();
    EXPECT_EQ(agt::send_tcp_data(link.get(), "\x90\x85", 2), 2);
    expect_orderly_end(a);
}

TEST_F(CutLink, EndsWhileTheServerTakesNoConnection) {
    ASSERT_NO_FATAL_FAILURE(start());
    listener.fill_up();
    put(queue, 1, 2);
    receive();
    link.reset();
    EXPECT_TRUE(a.wait_log("<!> network error : send_flag off"));
    const long long start_ms = agt::monotonic_ms();
    EXPECT_TRUE(wait_until([&] { return agt::monotonic_ms() - start_ms > 1200; })); // the watcher connects meanwhile
    EXPECT_EQ(a.count_log("port connect fail["), 0u);
    expect_orderly_end(a);
}

TEST_F(Notify, EndsWhileTheServerIsDown) {
    ASSERT_NO_FATAL_FAILURE(start());
    server.stop();
    put(queue, 1, 3);
    EXPECT_TRUE(a.wait_log("<!> server notify(cmd) port connect fail["));
    expect_orderly_end(a);
}

TEST(NotifyLink, LeaksNothingInAThousandReconnections) {
    stand_in server;
    ASSERT_EQ(server.start(), "");
    agent a;
    a.set("TRAN_SERVER", "CMD_PORT", server.port());
    a.set("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", 1);
    a.write_cfg();
    setenv("TRAN_AGT_CFG_FILE", a.cfg_file().c_str(), 1);
    for (int i = 1; i <= 1000; ++i) {
        ASSERT_EQ(kessard::try_connect(), 1);
        kessard::network_on();
        kessard::network_off();
        kessard::close_noti_socket();
        ASSERT_TRUE(server.wait_connections(i));
    }
    ASSERT_TRUE(server.wait_open_connections(0));
    const std::size_t files = open_files(getpid()).size();
    ASSERT_EQ(kessard::try_connect(), 1);
    ASSERT_TRUE(server.wait_connections(1001));
    EXPECT_EQ(open_files(getpid()).size(), files + 2); // both ends
    kessard::close_noti_socket();
    ASSERT_TRUE(server.wait_open_connections(0));
    EXPECT_EQ(open_files(getpid()).size(), files);
    server.stop();
    EXPECT_EQ(kessard::try_connect(), -1);
    EXPECT_EQ(kessard::noti_sockfd, -1);
}

// The recovery thread that stands alone.
TEST(NotifyLink, ComesBackThroughTheThreadThatStandsAlone) {
    stand_in server;
    ASSERT_EQ(server.start(), "");
    agent a;
    a.set("TRAN_SERVER", "CMD_PORT", server.port());
    a.write_cfg(); // ACTIVE_LIMIT is 0
    setenv("TRAN_AGT_CFG_FILE", a.cfg_file().c_str(), 1);
    kessard::running = 1;
    kessard::noti_send_flag = 0;
    kessard::th_start_check_network();
    a.set("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", 1);
    a.write_cfg();
    EXPECT_TRUE(server.wait_connections(1)); // at once, or in its second attempt
    EXPECT_TRUE(wait_until([] { return kessard::noti_send_flag == 1; }));
    kessard::th_join_check_network();
    kessard::noti_send_flag = 0;
    kessard::close_noti_socket();
}

} // namespace
