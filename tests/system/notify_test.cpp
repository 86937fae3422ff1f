// Active-service notifications through the real program: batches, the link, its going and coming.
#include "check_network.h"
#include "full_listener.h"
#include "process_globals.h"
#include "ring_queue.h"
#include "served_agent.h"

namespace {

using namespace std::string_literals;
using namespace test_support;

constexpr char NOTIFY = MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ;
constexpr char LINK_UP[] = "<!> network error : send_flag on ["; // from here on it is up
constexpr char BATCH_SENT[] = "sent 2 elements, noti_send_flag : 1";
constexpr kessctl::answer_fault CLOSED = {.close_after_bytes = 0};

ACTIVE_SERVICE_DETAIL make_record(int number) {
    ACTIVE_SERVICE_DETAIL record;
    std::memset(&record, 'a' + number % 26, sizeof record); // any bytes go through
    agt::copy_text(record.call_seq, std::to_string(1000000 + number).c_str() + 1); // six digits
    return record;
}

// The frame that carries `count` records from `first` on; the second element may still hold `tail`.
TCP_CMD_MSG notify_frame(int first, int count, int tail = 0) {
    TCP_CMD_MSG frame = kessctl::start_frame(NOTIFY);
    auto& body = frame.body.notify_active_service_detail_req;
    std::snprintf(body.element_num, sizeof body.element_num, "%03d", count);
    body.elements[0] = make_record(first);
    if (count == 2 || tail != 0)
        body.elements[1] = make_record(count == 2 ? first + 1 : tail);
    return frame;
}

// An agent that is to be started.
class NotifyLink : public served_agent {
  protected:
    NOTI_SEND_QUE* queue = nullptr;

    void start(int active_limit = 3000) {
        a.set("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", active_limit);
        start_running(a);
        queue = a.noti_que();
    }
    // Puts the records first..last on the queue in one step, so that the notifier finds them all.
    void put(int first, int last) const {
        int rear = queue->info.rear;
        for (int number = first; number <= last; ++number) {
            rear = agt::ring_next<NOTI_SEND_QUE>(rear);
            queue->data[rear].act_svc_dtl = make_record(number);
        }
        agt::shared_store(queue->info.rear, rear, std::memory_order_release);
    }
    bool wait_empty() const {
        return wait_until([this] { return agt::ring_empty(*queue); });
    }
    void expect_message(std::size_t nth, const TCP_CMD_MSG& wanted) const {
        const auto got = server.wait_for(NOTIFY, nth);
        EXPECT_TRUE(got && std::memcmp(&got->frame, &wanted, sizeof wanted) == 0) << nth;
    }
};

// One whose link is on.
class Notify : public NotifyLink {
  protected:
    Notify() { start(); }
};

TEST_F(Notify, SendsTwoTogetherAndALoneOneLater) {
    long long start_ms = agt::monotonic_ms();
    put(1, 1); // the very first waits too
    expect_message(1, notify_frame(1, 1));
    EXPECT_GE(agt::monotonic_ms() - start_ms, 1000);
    put(2, 3);
    expect_message(2, notify_frame(2, 2));
    EXPECT_TRUE(a.wait_log(std::string("(I) [notify_active_service_detail] ") + BATCH_SENT));
    EXPECT_EQ(a.count_log("socket send : 2 elements, ACTIVE_SERVICE_DETAIL size 614 bytes"), 1u);
    pass_time(3100);
    start_ms = agt::monotonic_ms();
    put(4, 6); // the third of them follows closely on a message
    expect_message(3, notify_frame(4, 2));
    expect_message(4, notify_frame(6, 1, 5));
    EXPECT_GE(agt::monotonic_ms() - start_ms, 1000);
    const std::string flushed = "flush sent 1 elements, noti_send_flag : 1, flush_time(";
    EXPECT_TRUE(a.wait_log(flushed, 2));
    EXPECT_GE(a.count_log(flushed + "2 sec)"), 1u); // a second more on a busy machine
    pass_time(3100);
    start_ms = agt::monotonic_ms();
    put(7, 7); // leaves at the first empty poll
    expect_message(5, notify_frame(7, 1, 5));
    EXPECT_LT(agt::monotonic_ms() - start_ms, 900);
    expect_end();
}

TEST_F(Notify, ForwardsManyRecordsInTheirOrder) {
    EXPECT_EQ(a.run({"put-notification", "--count", "1001", "--service", "PAY", "--pid", "77"}),
              "0\n1001 records put, 0 did not fit\n");
    ASSERT_TRUE(server.wait_for(NOTIFY, 501));
    int next = 1;
    for (const kessctl::received_message& message : server.messages())
        for (const kessctl::field_value& field : kessctl::decode(message.frame))
            if (field.name.ends_with("call_seq")) {
                EXPECT_EQ(std::stoi(field.text), next++);
                EXPECT_EQ(kessctl::field_text(message.frame, "elements[0].service_id"), "PAY");
                EXPECT_EQ(kessctl::field_text(message.frame, "elements[0].pid"), "77");
            }
    EXPECT_EQ(next, 1002);
}

TEST_F(Notify, CountsABatchAsSentWhenTheAnswerFails) {
    set_fault(NOTIFY, CLOSED);
    put(1, 2);
    EXPECT_TRUE(a.wait_log(LINK_UP));
    set_fault(NOTIFY, {});
    put(3, 4); // the next batch starts empty
    expect_message(2, notify_frame(3, 2));
    EXPECT_TRUE(
        in_order(a, {"<!> noti_sockfd, recv_tcp_data error. rlen : 0\n", "<!> network error\n",
                     "<!> network error : send_flag off [1]\n",
                     "<!> network error : socket close\n", "sent 2 elements, noti_send_flag : 0",
                     "(i) successfully, notify(cmd) port connect [ip 127.0.0.1, port ",
                     "(I) notify socket reconnect success", LINK_UP + "1]"s,
                     "sent 2 elements, noti_send_flag : 1"}));
    set_fault(NOTIFY, CLOSED);
    put(5, 5);
    EXPECT_TRUE(a.wait_log(LINK_UP, 2));
    EXPECT_TRUE(in_order(a, {"<!> noti_sockfd, recv_tcp_data error. rlen : 0(FLUSH)\n",
                             "flush sent 1 elements, noti_send_flag : 0, flush_time("}));
}

TEST_F(Notify, GivesAMuteServerUpAfterTenSeconds) {
    for (const auto& [count, path] : {std::pair(1, "(FLUSH)"), {2, ""}}) {
        a.mark_log();
        server.forget_messages();
        set_fault(NOTIFY, {.silent = true});
        const long long start_ms = agt::monotonic_ms();
        put(1, count);
        EXPECT_TRUE(
            in_order(a, {std::string("recv_tcp_data timeout error.") + path + "\n",
                         std::to_string(count) + " elements, noti_send_flag : 0", LINK_UP}));
        EXPECT_GE(agt::monotonic_ms() - start_ms, 9000);
        set_fault(NOTIFY, {});
        put(11, 12);
        expect_message(2, notify_frame(11, 2));
    }
}

TEST_F(NotifyLink, DropsRecordsWhileTheServerIsDown) {
    server.stop();
    start();
    const std::string port = std::to_string(server.port());
    EXPECT_TRUE(
        in_order(a, {"<!> server notify(cmd) port connect fail(ip : 127.0.0.1, port : " + port,
                     "<!> network error\n", "<!> network error : send_flag off [0]\n",
                     "<!> server notify(cmd) port connect fail[ip 127.0.0.1, port " + port + "]"}));
    const long long start_ms = agt::monotonic_ms();
    put(1, 6);
    EXPECT_TRUE(wait_empty());
    EXPECT_GE(agt::monotonic_ms() - start_ms, 900); // one in 200 ms
    ASSERT_EQ(server.start("127.0.0.1", server.port()), "");
    EXPECT_TRUE(a.wait_log(LINK_UP + "2]"s));
    put(7, 8);
    expect_message(1, notify_frame(7, 2));
    a.mark_log();
    server.stop();
    put(9, 11);
    EXPECT_TRUE(a.wait_log("<!> server notify(cmd) port connect fail["));
    expect_end();
}

TEST_F(NotifyLink, StaysOffUntilTheFileSaysOtherwise) {
    start(0);
    EXPECT_EQ(a.count_log("(I) Active Service Detail Monitoring OFF.(0ms)"), 1u);
    put(1, 3);
    EXPECT_TRUE(wait_empty());
    EXPECT_EQ(a.count_log("notify(cmd) port connect"), 0u);
    a.set("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", 1);
    a.write_cfg();
    EXPECT_TRUE(a.wait_log(LINK_UP));
    put(4, 5);
    expect_message(1, notify_frame(4, 2));
}

TEST_F(Notify, TakesAChangedServerFromTheFile) {
    kessctl::stand_in other;
    ASSERT_EQ(other.start(), "");
    ASSERT_TRUE(server.wait_for(MSG_DEVICE_INFO_REQ));
    a.set("TRAN_SERVER", "CMD_PORT", other.port());
    a.write_cfg();
    server.stop();
    put(1, 2);
    EXPECT_TRUE(a.wait_log(LINK_UP));
    put(3, 4);
    const TCP_CMD_MSG message = other.wait_for(NOTIFY).value().frame;
    EXPECT_EQ(kessctl::field_text(message, "elements[0].call_seq"), "000003");
    EXPECT_TRUE(answers(a, kessctl::start_frame(MSG_RENEW_SERVICE_LIST_REQ)));
    EXPECT_TRUE(other.wait_for(MSG_GET_SERVICE_LIST_REQ));
}

TEST_F(Notify, SurvivesIndexesOutOfRange) {
    std::size_t sent = 0;
    for (const auto& [front, rear] :
         {std::pair(32768, 5), {-1, 5}, {INT_MAX, 0}, {5, 32768}, {5, -1}, {INT_MIN, INT_MAX}}) {
        SCOPED_TRACE(testing::Message() << front << " " << rear);
        queue->info.rear = rear;
        queue->info.front = front;
        pass_time(100); // several polls, or fewer on a busy machine
        const int wanted = rear >= 0 && rear < 32768 ? rear : front;
        EXPECT_TRUE(wait_until([&] { return queue->info.front == wanted; })) << queue->info.front;
        queue->info = {0, 0};
        put(1, 2);
        expect_message(++sent, notify_frame(1, 2));
    }
}

TEST_F(Notify, LosesABatchThatCannotBeSent) {
    set_fault(NOTIFY, {.close_after_bytes = TCP_CMD_MSG_SIZE, .reset = true});
    put(1, 2);
    EXPECT_TRUE(a.wait_log(BATCH_SENT));
    a.mark_log();
    put(3, 4);
    EXPECT_TRUE(
        in_order(a, {"socket send : 2 elements", "<!> noti_sockfd, send_tcp_data error. slen : -1",
                     "<!> network error : send_flag off [1]", LINK_UP}));
    EXPECT_EQ(a.count_log("sent 2 elements"), 0u);
    put(5, 6);
    expect_message(2, notify_frame(5, 2));
    EXPECT_TRUE(a.wait_log(BATCH_SENT));
    put(7, 7);
    EXPECT_TRUE(wait_empty());
    server.close_listener(); // nobody takes the link back
    EXPECT_TRUE(a.wait_log("<!> [notify_active_service_detail] flush skip, noti_send_flag : 0"));
    EXPECT_EQ(a.count_log("<!> noti_sockfd, send_tcp_data error. slen : -1"), 2u);
    EXPECT_EQ(a.count_log("flush sent"), 0u);
}

TEST_F(Notify, EndsInTheMiddleOfAnAnswer) {
    set_fault(NOTIFY, {.split_after_bytes = 2, .pause_ms = 3000});
    put(1, 2);
    EXPECT_TRUE(a.wait_log("socket send : 2 elements", 1, 2000)); // not behind the answer
    expect_end();
    EXPECT_EQ(a.count_log(BATCH_SENT) + a.count_log("network error"), 0u);
}

TEST_F(Notify, EndsWhileTheServerTakesNoConnection) {
    const full_listener full;
    a.set("TRAN_SERVER", "CMD_PORT", full.port());
    a.write_cfg();
    set_fault(NOTIFY, CLOSED);
    put(1, 2);
    EXPECT_TRUE(a.wait_log("<!> network error : send_flag off"));
    pass_time(1200); // the watcher connects meanwhile
    a.mark_log();
    EXPECT_TRUE(answers(a, kessctl::start_frame('2'))); // and the retrieval
    expect_end();
    EXPECT_EQ(a.count_log(" fail") + a.count_log(THREAD_END), 0u);
    EXPECT_EQ(a.count_log("(I) completed join get_service_list."), 1u);
}

// The consumer never pauses; the producer's first use of each page gives it time to come too early.
TEST(NotifyQueue, ShowsARecordOnlyWhenItIsWhole) {
    const zeroed<NOTI_SEND_QUE> queue;
    constexpr int COUNT = NOTI_SEND_QUE_SLOTS - 1;
    std::thread producer([&] {
        const std::string record(sizeof(NOTI_SEND_QUE_DATA), 'r');
        for (int i = 0; i < COUNT; ++i)
            agt::ring_put(*queue, record.data(), record.size());
    });
    int wrong = 0;
    for (int i = 0; i < COUNT;) {
        const auto* record = reinterpret_cast<const char*>(agt::ring_take(*queue));
        if (record == nullptr)
            continue;
        wrong += record[sizeof(NOTI_SEND_QUE_DATA) - 1] == 'r' ? 0 : 1;
        ++i;
    }
    producer.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(Notify, LinkComesBackThroughItsOwnThread) {
    a.write_cfg(); // ACTIVE_LIMIT is 0
    setenv("TRAN_AGT_CFG_FILE", a.cfg_file().c_str(), 1);
    kessard::running = 1;
    kessard::th_start_check_network();
    a.set("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", 1);
    a.write_cfg();
    EXPECT_TRUE(wait_until(
        [] { return kessard::noti_send_flag() == 1; })); // at once, or in its second attempt
    EXPECT_TRUE(server.wait_connections(1));
    kessard::th_join_check_network();
    kessard::close_noti_socket();
}

} // namespace
