// The real program while calls fail, peers reset, neighbours spoil its tables, and it is killed.
#include "certificates.h"
#include "ext_peer.h"
#include "faulty_agent.h"
#include "sem.h"

namespace {

using namespace std::string_literals;
using namespace test_support;

using Faults = faulty_agent;

struct fault_case {
    std::string call;
    int error;
    texts named; // one of them is said, on standard error or in the log; none: it may go unnoticed
    std::string exchange = "Start";
    bool works = false; // the exchange, all the same
};
constexpr char NO_CONNECTION[] = "<!> server connection fail. (ip ";
constexpr char NO_THREAD[] = "pthread_create error";

class FaultCases : public Faults, public testing::WithParamInterface<fault_case> {
  protected:
    const fault_case& one = GetParam();
    bool is_named() const {
        const std::string said = a.log() + a.err();
        const auto has_any = [&](const texts& some) {
            return std::ranges::any_of(some,
                                       [&](auto& text) { return said.find(text) != said.npos; });
        };
        const std::string number = std::to_string(one.error);
        return one.named.empty() ||
               (has_any(one.named) &&
                (one.error == ENETUNREACH || one.call.ends_with("alloc") ||
                 has_any({"errno : " + number, "errno:" + number, "errno=" + number})));
    }
};
const auto name_of = [](const auto& one) { return one.param.call + "_" + one.param.exchange; };

// The first, the second, ... call of the start fails; what the file forbids is never allowed.
class StartFaults : public FaultCases {};
TEST_P(StartFaults, AreNamedOrHarmless) {
    a.set("TRAN_AGENT", "REMOTE_COMMANDS_YN", "N");
    unsigned nth = 0;
    for (bool hit = true; hit && !HasFailure();) {
        SCOPED_TRACE(++nth);
        a.mark_log();
        set(one.call, one.error, 0, nth);
        a.start();
        limit_ms = 0;
        EXPECT_TRUE(wait_until([&] { return command() || ended(); }));
        hit = hits(one.call) > 0;
        clear();
        EXPECT_TRUE(!hit || is_named());
        EXPECT_TRUE(ended() || in_order(a.run({"exec", "true"}), {"closed the connection"}));
        EXPECT_EQ(ended() ? a.wait_exit() : a.stop() + 1, 1);
    }
    EXPECT_GT(nth, 1u);
}
const fault_case START_FAULTS[] = {
    {"shmget", ENOSPC, {" create error.[key:0x"}},
    {"shmat", ENOMEM, {" create error.[key:0x"}},
    {"semget", ENOSPC, {" semaphore create error.[key:0x"}},
    {"semtimedop", ENOSPC, {" semaphore lock error.[semid:"}},
    {"socket", EMFILE, {"init tcp server fail", "connection fail", "port connect fail"}},
    {"connect", ENETUNREACH, {"connection fail", "port connect fail"}},
    {"open", ENFILE, {"fopen fail", "cannot open a log file", " : cannot be read, errno : "}},
    {"pthread_create", EAGAIN, {NO_THREAD}},
    {"eventfd", EMFILE, {NO_THREAD}},
    {"malloc", ENOMEM, {}},
    {"calloc", ENOMEM, {}}};
INSTANTIATE_TEST_SUITE_P(, StartFaults, testing::ValuesIn(START_FAULTS), name_of);

// A call fails for a while; afterwards everything goes on, with what was stored.
class RunningFaults : public FaultCases {};
TEST_P(RunningFaults, PassAndLeaveNothing) {
    table->smallest_bytes = 65536;
    start_running(a);
    expect_all();
    const SVC_HASH_TBL* loaded = a.services();
    a.mark_log();
    limit_ms = 300;
    set(one.call, one.error);
    if (one.call == "connect")
        server.drop_connections();
    const auto exchange = std::ranges::find(ALL, one.exchange, [](auto& of) { return of.first; });
    EXPECT_EQ((this->*exchange->second)(), one.works);
    EXPECT_TRUE(wait_until([&] { return hits(one.call) > 0 && is_named(); }));
    clear();
    // A list may be coming in.
    EXPECT_TRUE(wait_until([&] { return loaded->alloc_cnt >= LEAST_SERVICES; }));
    expect_all();
    expect_end();
}
const fault_case RUNNING_FAULTS[] = {
    {"fork", EAGAIN, {"<!> fork error. errno : 11"}, "remote_command"},
    {"vfork", EAGAIN, {}, "remote_command", true}, // it is forked then
    {"vfork", EAGAIN, {"(I) run script : "}, "update"},
    {"pipe2", EMFILE, {"(i) send datas... ok.. len=(8)"}, "remote_command"},
    {"pthread_create", EAGAIN, {NO_THREAD}, "reload"},
    {"socket", EMFILE, {NO_CONNECTION}, "reload"},
    {"connect", ENETUNREACH, {NO_CONNECTION}, "update"},
    {"connect", ENETUNREACH, {"<!> server notify(cmd) port connect fail[ip "}, "notify"},
    {"semtimedop", EIDRM, {"<!> svc_hash_tbl semaphore lock error.[semid:"}, "reload", true},
    {"malloc", ENOMEM, {"<!> no memory for the dump of svc_hash_tbl"}, "reload", true},
    {"malloc", ENOMEM, {"<!> RECV_MAX_SIZE malloc error!!"}, "transfer"},
    {"calloc", ENOMEM, {"<!> add_worker -> not enought memory."}, "sweep", true},
    {"open", EMFILE, {"<!> can't open file |"}, "transfer"},
    {"write", ENOSPC, {}, "transfer"}}; // nor can the log say so
INSTANTIATE_TEST_SUITE_P(, RunningFaults, testing::ValuesIn(RUNNING_FAULTS), name_of);

TEST_F(Faults, InterruptedCallsAreRepeatedAndShortOnesCompleted) {
    for (const bool interrupted : {true, false}) {
        texts chosen = {"recv", "sendmsg", "read", "write"};
        if (interrupted)
            chosen.insert(chosen.end(), {"poll", "pselect", "accept4", "semtimedop"});
        else
            chosen.emplace_back("pread");
        a.mark_log();
        server.forget_messages();
        for (const std::string& call : chosen)
            interrupted ? set(call, EINTR, 2) : set(call, faults::SHORT_COUNT, 7);
        if (!interrupted)
            set("mmap", ENODEV, 1); // then a download is read
        start_running(a);
        expect_all();
        EXPECT_TRUE(server.wait_for(MSG_HEALTH_CHECK_REQ));
        for (const std::string& call : chosen)
            EXPECT_GT(hits(call), 0u) << call;
        expect_end();
        clear();
    }
}

// What the daemon sends over TLS fails, from the first of it on: the answer, the steps of the
// handshake with the server, the request, the acknowledgements.
TEST_F(Faults, ARetrievalOverTlsThatFailsIsFollowedByOthers) {
    const authority ca(a);
    ca.secure(a, server, client);
    identity = ca.identity("operator");
    start_running(a);
    EXPECT_TRUE(reload());
    for (unsigned nth = 1; nth <= 10 && !HasFailure(); ++nth) {
        SCOPED_TRACE(nth);
        set("send", ECONNRESET, 0, nth);
        renew();
        EXPECT_TRUE(wait_until([&] { return hits("send") > 0; }));
        clear();
        EXPECT_TRUE(reload());
    }
}

TEST_F(Faults, AFailingAcceptEndsTheDaemon) {
    start_running(a);
    EXPECT_TRUE(reload());
    set("accept4", ECONNABORTED, 0); // once
    EXPECT_TRUE(answers(a));
    set("getpeername", ENOTCONN, 0); // as behind a handshake from port 0
    EXPECT_FALSE(answers(a));
    EXPECT_TRUE(answers(a));
    set("accept4", EMFILE);
    client.connect("127.0.0.1", a.port());
    EXPECT_EQ(a.wait_exit(), 1);
    EXPECT_TRUE(in_order(a, {"<!> accept error on the command port, the daemon ends. errno : 24",
                             "[ kessard ] end.. complete."}));
}

TEST_F(Faults, ADeadNameServerHoldsNoEndUp) {
    a.set("TRAN_SERVER", "IP_ADDRESS", "localhost");
    const auto expect_soon = [&](unsigned lookups) {
        EXPECT_TRUE(wait_until([&] { return hits("gethostbyname_r") >= lookups; }));
        const long long start_ms = agt::monotonic_ms();
        expect_end();
        EXPECT_LT(agt::monotonic_ms() - start_ms, 2000);
    };
    set("gethostbyname_r", ETIMEDOUT);
    a.start();
    expect_soon(1);
    clear();
    start_running(a);
    expect_all();
    set("gethostbyname_r", ETIMEDOUT);
    a.write_file("svc_update", "");
    server.drop_connections();
    put_notifications();
    EXPECT_TRUE(wait_until([&] { return renew() && hits("gethostbyname_r") >= 4; }));
    expect_soon(4); // upload, health check, notify link and retrieval
}

TEST_F(Faults, AScriptThatDoesNotEndIsEnded) {
    start_running(a);
    for (const char* script : {"while :; do echo A 1; done", "echo A 1; exec sleep 300",
                               "(while :; do echo A 1; sleep 0.01; done) &"}) {
        a.mark_log();
        a.write_file("services.sh", "#!/bin/sh\n"s + script + "\n", 0755);
        a.write_file("svc_update", "");
        EXPECT_TRUE(a.wait_log("\t[#001]"));
        table->monotonic_sec += 601;
        EXPECT_TRUE(a.wait_log("<!> script runs for more than 600 sec, ended : "));
        EXPECT_TRUE(wait_until([&] { return a.running().size() == 1; })) << script;
    }
}

TEST_F(Faults, FollowsAChangedTimeZone) {
    const std::string zones = "/usr/share/zoneinfo/Etc/GMT";
    const std::string zone = a.variables["ZONE"] = a.path("zone");
    std::filesystem::copy(zones + "+6", zone);
    std::filesystem::last_write_time(zone, {});
    a.write_cfg();
    const process daemon({"/usr/bin/unshare", "-m", "/bin/sh", "-c",
                          "mount --bind $ZONE /etc/localtime && exec " KESSARD_PROGRAM},
                         a.variables);
    if (!wait_until([&] { return answers(a); }))
        GTEST_SKIP() << "no file system of its own: " << daemon.err();
    const auto hour = [&] {
        a.mark_log();
        return command() ? std::stoi(a.log().substr(6, 2)) : -1;
    };
    const int before = hour();
    std::ofstream(zone, std::ios::binary) << content(zones + "-6");
    table->clock_sec = 60;
    EXPECT_TRUE(wait_until([&] { return std::abs(hour() - before) > 2; })); // twelve
}

TEST_F(Faults, TheClockStepsAndTheLogIsRemoved) {
    const auto has_log_of = [&](int days) {
        const std::time_t then = std::time(nullptr) + days * 86400;
        table->clock_sec = days * 86400;
        const std::string name = local_text("logs/proc/kessard/kessard-%Y-%m-%d-log", then);
        return command() && wait_until([&] { return std::filesystem::exists(a.path(name)); }, 1000);
    };
    a.set("SERVICE_HASH", "DAILY_UPDATE_HHMI", "0000");
    start_running(a);
    expect_all();
    EXPECT_TRUE(has_log_of(1));
    EXPECT_TRUE(a.wait_log("start update service hhmi(0000)", 2));
    EXPECT_TRUE(has_log_of(-1));
    std::filesystem::remove_all(a.path("logs"));
    EXPECT_FALSE(has_log_of(2)); // lines are dropped until the next day
    std::filesystem::create_directories(a.path("logs/proc/kessard"));
    EXPECT_TRUE(has_log_of(400));
    expect_all();
    EXPECT_EQ(a.count_log("start update service hhmi(0000)"), 1u);
    expect_end();
}

// KESSARD_RESET_STEP says how many bytes lie between two offsets, but for the first, 97 otherwise.
TEST_F(Faults, ResetsAtAnyByteLeaveNothing) {
    const char* wanted = std::getenv("KESSARD_RESET_STEP");
    const int step = wanted == nullptr ? 97 : std::atoi(wanted);
    std::vector<int> offsets;
    for (int at = 0; at < TCP_CMD_MSG_SIZE; at += at < 30 ? 1 : step)
        offsets.push_back(at);
    const std::pair<char, std::function<void()>> answers[] = {
        {MSG_HEALTH_CHECK_REQ, [] {}},
        {MSG_GET_SERVICE_LIST_REQ, [this] { renew(); }},
        {MSG_GET_SERVICE_LIST_RSPACK, [this] { renew(); }},
        {MSG_UPDATE_SERVICE_LIST_REQ, [this] { a.write_file("svc_update", ""); }},
        {MSG_NOTIFY_ACTIVE_SERVICE_DETAIL_REQ, [this] { put_notifications(); }}};
    start_running(a);
    expect_all();
    const std::size_t files = open_files(a.pid()).size();
    server.set_services(services(9));
    for (const char type : {'2', '7', 'B', 'D', '\2'})
        for (const int at : offsets) {
            const TCP_CMD_MSG frame = kessctl::start_frame(type);
            reconnect();
            EXPECT_TRUE(at == 0 || client.send_bytes(&frame, static_cast<std::size_t>(at)));
            if (at % 2 == 0) // the others close as they should
                reset_at_close(client.fd());
            client.close();
            EXPECT_TRUE(at % 10 != 0 || command());
        }
    a.write_file("big", std::string(300000, 'b'));
    const std::string extended = "\2";
    for (const std::string& request :
         {extended + "0003R" + a.path("big"), extended + "0001Rhead -c 300000 /dev/zero", "2"s,
          "7"s, "B"s, "D"s})
        for (const int at : offsets) { // goes away in the middle of the answer
            TCP_CMD_MSG frame = kessctl::start_frame(0);
            std::memcpy(frame.hdr.msg_type, request.data(), request.size());
            reconnect();
            char taken[TCP_CMD_MSG_SIZE];
            EXPECT_TRUE(client.send(frame));
            EXPECT_EQ(recv(client.fd(), taken, static_cast<std::size_t>(at), MSG_WAITALL), at);
            reset_at_close(client.fd());
            client.close();
        }
    EXPECT_TRUE(command() && wait_until([&] { return children(a.pid()).empty(); }));
    for (const auto& [type, provoke] : answers)
        for (const int at : offsets) {
            server.forget_messages();
            server.change([](auto& options) { options.faults.clear(); });
            set_fault(type, {.close_after_bytes = at, .reset = true});
            EXPECT_TRUE(wait_until([&, key = type, &act = provoke] {
                act();
                return server.wait_for(key, 1, 50).has_value();
            }));
        }
    server.change([](auto& options) { options.faults.clear(); });
    expect_all();
    EXPECT_TRUE(wait_until([&] { return open_files(a.pid()).size() <= files; }));
    expect_end();
}

TEST_F(Faults, ADownloadThatCannotBeSentIsBrokenOff) {
    const std::string line = "file_download(): send fail for ";
    a.write_file("there", "content");
    std::filesystem::create_directory(a.path("here"));
    const texts get = {"get", a.path("there"), a.path("here")};
    start_running(a);
    for (const unsigned nth : {1U, 2U})
        EXPECT_TRUE(wait_until([&] { // a thread of the daemon may have sent the nth
            set("sendmsg", ECONNRESET, 0, nth);
            return a.console(get).status != 0 &&
                   a.count_log(line + (nth == 1 ? "mb" : "body") + " len=(-1)") == 1;
        }));
    EXPECT_TRUE(wait_until([&] { // nothing of the second file follows where the first broke off
        set("sendmsg", ECONNRESET, 0, 3);
        const std::string got = ask_ext(a, "0003R" + ext_items({a.path("there"), a.path("there")}));
        return a.count_log("<!> error for send file data.... |" + a.path("there")) > 0 &&
               !got.ends_with("content");
    }));
    const std::pair<const char*, int> unmapped[] = {{"mmap", ENODEV}, {"sendmsg", EFAULT}};
    for (const auto& one : unmapped) // the latter as where the mapped is cut off
        EXPECT_TRUE(wait_until([&] {
            clear();
            set(one.first, one.second, 0, one.second == EFAULT ? 3 : 1);
            std::filesystem::remove(a.path("here/there"));
            return a.console(get).status == 0 && hits(one.first) > 0 &&
                   content(a.path("here/there")) == "content";
        }));
    expect_end();
}

TEST_F(Faults, KilledAtAnyMomentStartsAgainOnItsObjects) {
    const unsigned seed = std::random_device()();
    std::mt19937 random(seed);
    std::cout << "seed " << seed << '\n';
    server.set_services(services(2000));
    start_running(a);
    EXPECT_EQ(a.console({"put-trace", "--count", "3000"}).status, 0);
    a.settings()->call_trc_depth = 77;
    for (int i = 0; i < 12 && !HasFailure(); ++i) {
        EXPECT_TRUE(renew());
        agt::sleep_ms(static_cast<int>(random() % 120));
        a.signal(SIGKILL);
        EXPECT_EQ(a.wait_exit(), 128 + SIGKILL);
        for (const char* key : {"SVC_HASH_TBL_SEMKEY", "PTRC_HASH_TBL_SEMKEY"})
            EXPECT_TRUE(wait_until([&] { return semctl(a.sem_id(key), 0, GETVAL) == 1; })) << key;
        empty_log();
        start_running(a);
        EXPECT_EQ(table_fault(*a.services()), "");
        EXPECT_EQ(a.services()->alloc_cnt, 2000u);
        EXPECT_EQ(a.traces()->used.top, 3000u);
        EXPECT_EQ(a.settings()->call_trc_depth, 77);
    }
    expect_end();
}

using Neighbours = exchanges;

TEST_F(Neighbours, OneThatHoldsATableForLongCostsNothing) {
    start_running(a);
    const int semid = a.sem_id("SVC_HASH_TBL_SEMKEY");
    const pid_t holder = fork();
    if (holder == 0) {
        static_cast<void>(agt::sem_lock(semid, 0, SEM_UNDO));
        pause();
    }
    EXPECT_TRUE(wait_until([&] { return semctl(semid, 0, GETVAL) == 0; }) && renew());
    std::thread waiting([&] { EXPECT_TRUE(command()); });
    EXPECT_TRUE(wait_until([&] { return semctl(semid, 0, GETNCNT) == 2; }));
    clockid_t clock = 0;
    EXPECT_EQ(clock_getcpuclockid(a.pid(), &clock), 0);
    const auto used_ms = [&] {
        timespec used{};
        clock_gettime(clock, &used);
        return used.tv_sec * 1000 + used.tv_nsec / 1000000;
    };
    const long before_ms = used_ms();
    pass_time(3000);
    EXPECT_LT(used_ms() - before_ms, 100);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    waiting.join();
    EXPECT_TRUE(reload());
    EXPECT_EQ(a.stop(), 0);
}

TEST_F(Neighbours, OneThatSpoilsTheTablesIsSurvived) {
    start_running(a);
    EXPECT_TRUE(reload());
    std::atomic<bool> over{false};
    std::thread vandal([&] { spoil_until(over); });
    const long long from_ms = agt::monotonic_ms();
    for (int i = 0; agt::monotonic_ms() - from_ms < 4000; ++i) {
        SERVICE_ELEMENT sent[8];
        for (SERVICE_ELEMENT& one : sent) {
            one = kessctl::make_service("SERVICE" + std::to_string(i % 400));
            one.update_mode[0] = "ADYX"[i++ % 4];
        }
        EXPECT_TRUE(answers(a, kessctl::modified_services_frame(sent, 8)));
        EXPECT_TRUE(i % 64 != 8 || renew());
    }
    over = true;
    vandal.join();
    expect_all();
    EXPECT_EQ(a.stop(8000), 0);
}

} // namespace
