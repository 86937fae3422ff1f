// Shell commands and file transfer for the central server, through the real program and the console.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "checks.h"
#include "ext_client.h"
#include "frame.h"
#include "service_file.h"
#include "stand_in.h"
#include "tcp_base.h"

namespace {

using namespace test_support;
using kessctl::command_client;
using kessctl::command_result;
using kessctl::ext_request;

ext_request request_of(const char* code, const texts& items) {
    std::vector<ext_request> planned;
    EXPECT_EQ(kessctl::plan_requests({code, "", EXT_ITEM_MAX}, items, &planned), "");
    return planned.at(0);
}

// Sends one request on a connection of its own and leaves the answer to be read.
void ask(const agent& one, command_client& client, const ext_request& request) {
    EXPECT_TRUE(client.connect("127.0.0.1", one.port()) && kessctl::send_request(client, request, LIMIT_MS))
        << client.error();
}

std::vector<command_result> run(const agent& one, const texts& commands) {
    command_client client;
    std::vector<command_result> results;
    EXPECT_TRUE(client.connect("127.0.0.1", one.port())) << client.error();
    EXPECT_EQ(kessctl::run_commands(client, request_of(EXT_SVC_CMD, commands), LIMIT_MS, &results).text, "");
    results.resize(commands.size());
    return results;
}

// The console, with the agent of the test.
program_result console(const agent& one, texts words) {
    words.insert(words.begin(), KESSCTL_PROGRAM);
    return run_program(words, one.variables, 2 * LIMIT_MS);
}

texts children(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
    texts found;
    for (std::string child; file >> child;)
        found.push_back(child);
    return found;
}

bool serves(const agent& one) {
    return run(one, {"echo a"})[0].output == "a\n";
}

// In the foreground and as a daemon.
class RemoteCommand : public testing::TestWithParam<bool> {
  protected:
    void start() {
        GetParam() ? a.start_daemon() : a.start();
        ASSERT_TRUE(a.wait_log("start... running : 1"));
    }
    agent a;
};

INSTANTIATE_TEST_SUITE_P(Modes, RemoteCommand, testing::Bool(),
                         [](const auto& mode) { return std::string(mode.param ? "daemon" : "foreground"); });

TEST_P(RemoteCommand, ExitCodesAndOutput) {
    start();
    const auto results = run(a, {"echo a", "exit 3", "echo b >&2; exit 3", "echo c; kill -9 $$", "printf '\\0x'"});
    const std::vector<std::pair<int, std::string>> wanted = {
        {0, "a\n"}, {-1, ""}, {3, "b\n"}, {-1, "c\n"}, {0, std::string("\0x", 2)}};
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        EXPECT_EQ(results[i].exit_code, wanted[i].first) << i;
        EXPECT_EQ(results[i].output, wanted[i].second) << i;
    }
    EXPECT_TRUE(a.wait_log("(i) send datas... ok.. len=(48)"));
}

TEST_P(RemoteCommand, CommandsSeeDefaultSignalsAndNoDescriptors) {
    start();
    const auto results = run(a, {"grep -E '^Sig(Blk|Ign)' /proc/self/status", "ls /proc/self/fd | wc -l"});
    EXPECT_EQ(results[0].output, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
    EXPECT_EQ(results[1].output, "4\n"); // three, and the directory itself
}

TEST_P(RemoteCommand, ABackgroundCommandDoesNotHoldThePort) {
    start();
    const pid_t left = std::stoi(run(a, {"sleep 300 >/dev/null 2>&1 & echo $!"})[0].output);
    const texts standard_files(3, "/dev/null");
    EXPECT_TRUE(wait_until([&] { return open_files(left) == standard_files; })) << testing::PrintToString(open_files(left));
    EXPECT_EQ(a.stop(), 0);
    a.mark_log();
    start();
    EXPECT_TRUE(serves(a));
    EXPECT_EQ(kill(left, 0), 0);
}

TEST_P(RemoteCommand, ManyRequestsLeaveNothing) {
    start();
    EXPECT_TRUE(serves(a));
    const texts files = open_files(a.pid());
    for (int i = 0; i < 300 && !HasFailure(); ++i)
        EXPECT_TRUE(serves(a)) << i;
    EXPECT_TRUE(wait_until([&] { return children(a.pid()).empty(); })) << children(a.pid()).size() << " children";
    EXPECT_TRUE(wait_until([&] { return open_files(a.pid()) == files; }));
}

// Every request follows a renew command on its connection, so a retrieval starts whenever the one before has ended.
TEST_P(RemoteCommand, AnswersWhileTheServiceTableIsRenewedAndDumped) {
    constexpr int REQUESTS = 200;
    kessctl::stand_in server;
    std::vector<SERVICE_ELEMENT> services;
    for (int i = 0; i < 2000; ++i)
        services.push_back(kessctl::make_service("SVC" + std::to_string(i)));
    server.set_services(services);
    server.change([](kessctl::stand_in_options& options) { options.record = false; });
    ASSERT_EQ(server.start(), "");
    a.set("TRAN_SERVER", "CMD_PORT", server.port());
    start();
    a.mark_log();
    std::atomic<int> next{0};
    std::atomic<int> answered{0};
    const auto work = [&] {
        for (int i = 0; (i = next++) < REQUESTS;) {
            command_client client;
            TCP_CMD_MSG renewed;
            std::vector<command_result> results;
            const std::string number = std::to_string(i);
            if (client.connect("127.0.0.1", a.port()) &&
                client.request(kessctl::start_frame(MSG_RENEW_SERVICE_LIST_REQ), &renewed) &&
                run_commands(client, request_of(EXT_SVC_CMD, {"sleep 0.1; echo " + number}), LIMIT_MS, &results).ok())
                answered += results.at(0).output == number + "\n" ? 1 : 0;
        }
    };
    std::vector<std::thread> workers;
    for (int i = 0; i < 5; ++i)
        workers.emplace_back(work);
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(answered, REQUESTS);
    EXPECT_GE(a.count_log("### get_service_list() ### thread function END..."), 2U);
    EXPECT_TRUE(wait_until([&] { return children(a.pid()).empty(); }));
}

TEST_P(RemoteCommand, APeerThatVanishesOrIsRefusedLeavesNoChild) {
    start();
    const std::string big = a.path("big");
    a.write_file("big", std::string(8 << 20, 'x'));
    const ext_request download = request_of(EXT_SVC_FILE_DOWN, {big});
    const ext_request upload = request_of(EXT_SVC_FILE_UP, {a.path("up"), "f", "100000", "420"});
    for (const std::size_t bytes : {0, 1, 72, 73, 77, 213, 1 << 20}) { // of the answer
        command_client client;
        std::string seen(bytes, '\0');
        ask(a, client, download);
        EXPECT_TRUE(bytes == 0 || client.receive_bytes(seen.data(), bytes)) << client.error();
    }
    for (const std::size_t bytes : {0, 1, 99999}) { // of the content
        command_client client;
        ask(a, client, upload);
        EXPECT_TRUE(client.send_bytes(std::string(bytes, 'y').data(), bytes)) << client.error();
    }
    EXPECT_TRUE(a.wait_log("<!> recv_tcp_data_timeout error!!", 3));
    const ext_request unknown = request_of("7777", {"x"});
    TCP_CMD_MSG answer_kind = kessctl::start_frame(MSG_EXT_REQ);
    std::memcpy(reinterpret_cast<char*>(&answer_kind) + EXT_REQ_CODE_AT, "0001A", 5);
    command_client refused;
    ask(a, refused, unknown);
    EXPECT_TRUE(refused.wait_closed()) << refused.error();
    EXPECT_TRUE(refused.connect("127.0.0.1", a.port()) && refused.send(answer_kind) && refused.wait_closed());
    EXPECT_TRUE(a.wait_log("<!> unsupported EXT_REQ = |7777|") && a.wait_log("<!> unsupported  EXT_PDU = |A|"));
    EXPECT_TRUE(wait_until([&] { return children(a.pid()).empty(); }));
    EXPECT_TRUE(serves(a));
}

TEST(RemoteCommandOnce, APeerThatStallsIsGivenUpAndNobodyWaitsForIt) {
    agent a;
    start_running(a);
    std::vector<command_client> stalled(4);
    const ext_request upload = request_of(EXT_SVC_FILE_UP, {a.path("up"), "f", "2000000", "420"});
    const std::size_t sent[] = {0, 1, 65536, 1999999};
    for (std::size_t i = 0; i < 4; ++i) {
        std::uint32_t length = 0;
        ask(a, stalled[i], upload);
        EXPECT_EQ(kessctl::receive_header(stalled[i], LIMIT_MS, &length).text, "");
        EXPECT_TRUE(stalled[i].send_bytes(std::string(sent[i], 'y').data(), sent[i]));
    }
    EXPECT_TRUE(serves(a));
    for (command_client& one : stalled) {
        std::uint32_t length = 1;
        EXPECT_EQ(kessctl::receive_header(one, LIMIT_MS, &length).outcome, kessctl::ext_result::refused);
        EXPECT_EQ(length, 0U);
        EXPECT_TRUE(one.wait_closed());
    }
    EXPECT_TRUE(wait_until([&] { return children(a.pid()).empty(); }));
}

TEST(RemoteCommandOnce, AStalledOrCutFrameIsDropped) {
    agent a;
    start_running(a);
    const TCP_CMD_MSG frame = kessctl::start_frame(MSG_EXT_REQ);
    for (const std::size_t bytes : {1, 5, 9, 1406}) {
        command_client cut;
        command_client waiting;
        EXPECT_TRUE(cut.connect("127.0.0.1", a.port()) && cut.send_bytes(&frame, bytes));
        EXPECT_TRUE(waiting.connect("127.0.0.1", a.port()) && waiting.send_bytes(&frame, bytes));
        cut.close();
        EXPECT_TRUE(waiting.wait_closed(LIMIT_MS)) << bytes << " " << waiting.error();
        EXPECT_TRUE(serves(a)) << bytes;
    }
}

TEST(RemoteCommandOnce, ConsoleExec) {
    agent a;
    start_running(a);
    program_result shown = console(a, {"exec", "--timeout", "2", "echo a", "echo b", "echo c; exit 4"});
    EXPECT_EQ(shown.out, "$ echo a\na\n-> exit status 0\n$ echo b\nb\n-> exit status 0\n$ echo c; exit 4\nc\n"
                         "-> exit status 4\n");
    EXPECT_EQ(shown.status, 1);
    EXPECT_EQ(a.count_log("len=1395, timeout=2"), 2U); // the third is no piece of the second
    EXPECT_EQ(console(a, {"exec", "true"}).out, "$ true\n-> no output, exit status unknown\n");
    EXPECT_EQ(console(a, {"exec", "true"}).status, 0);
    EXPECT_EQ(console(a, {"exec", "--strict", "true"}).status, 1);
    EXPECT_EQ(console(a, {"exec", "echo a\x1f"
                                  "echo b"})
                  .status,
              2);
    EXPECT_EQ(console(a, {"exec", std::string(1398, 'x')}).status, 2);
    shown = console(a, {"exec", "echo started; exec sleep 60"});
    EXPECT_NE(shown.out.find("-> time-out"), std::string::npos) << shown.out;
    EXPECT_EQ(shown.status, 1);
}

TEST(RemoteCommandOnce, ConsolePutAndGet) {
    agent a;
    start_running(a);
    texts put = {"put"};
    texts get = {"get"};
    for (int i = 0; i < 31; ++i) { // four uploads, two downloads
        const std::string name = "f" + std::to_string(i);
        a.write_file(name, std::string(static_cast<std::size_t>(i) * 100000, static_cast<char>('a' + i % 26)), 0640);
        put.push_back(a.path(name));
        get.push_back("${TRAN_AGT_HOME}/up/" + name);
    }
    put.push_back(a.path("up"));
    get.push_back(a.path("down"));
    EXPECT_EQ(console(a, put).err, "");
    EXPECT_NE(console(a, get).status, 0) << "there is no directory yet";
    std::filesystem::create_directory(a.path("down"));
    EXPECT_EQ(console(a, get).err, "");
    for (int i = 0; i < 31; ++i) {
        const std::string name = "f" + std::to_string(i);
        std::ostringstream sent;
        std::ostringstream came;
        sent << std::ifstream(a.path(name)).rdbuf();
        came << std::ifstream(a.path("down/" + name)).rdbuf();
        EXPECT_EQ(sent.str(), came.str()) << name;
        struct stat info {};
        EXPECT_EQ(stat(a.path("down/" + name).c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 07777, 0640U);
    }
    const program_result none = console(a, {"get", a.path("f1"), "/nowhere/x", a.path("down")});
    EXPECT_EQ(none.err, "kessctl: invliad file=|/nowhere/x|\n");
    EXPECT_EQ(none.status, 1);
    const program_result device = console(a, {"put", a.path("f1"), "/dev/null/x"});
    EXPECT_EQ(device.err, "kessctl: makedir(/dev/null/x) failed...\n");
    EXPECT_EQ(device.status, 1);
}

// An agent that announces one file, with this name, and sends it.
void send_one_file(int listener, const std::string& name) {
    sockaddr_in peer{};
    char request[TCP_CMD_MSG_SIZE];
    const agt::unique_fd sockfd(agt::accept_tcpserver_connection(listener, &peer));
    EXPECT_EQ(agt::recv_tcp_data(sockfd.get(), request, sizeof request), int{TCP_CMD_MSG_SIZE});
    EXT_RSP_HDR header = {TCP_CMD_MAGIC_BYTES, EXT_STATUS_ACCEPTED, {}, {0, 0, 0, 140}};
    ST_FILE_INFO info = {htonl(3), htonl(0104755), {}};
    std::copy_n(name.begin(), std::min(name.size(), sizeof info.name), info.name);
    std::string answer(reinterpret_cast<char*>(&header), sizeof header);
    answer += std::string("\0\0\0\1", 4) + std::string(reinterpret_cast<char*>(&info), sizeof info) + "abc";
    EXPECT_EQ(agt::send_tcp_data(sockfd.get(), answer.data(), static_cast<int>(answer.size())),
              static_cast<int>(answer.size()));
}

TEST(RemoteCommandOnce, GetWritesInItsDirectoryOnly) {
    const agent a;
    const std::string inside = a.path("in/side");
    std::filesystem::create_directories(inside);
    const agt::unique_fd listener(agt::open_tcp_server_session("127.0.0.1", a.port()));
    const auto names = [](const std::string& directory) {
        texts found;
        for (const auto& one : std::filesystem::directory_iterator(directory))
            found.push_back(one.path().filename());
        return found;
    };
    for (const std::string name : {"../up", "..", ".", "", "/tmp/x", "side/x", "good"}) {
        std::thread fake([&] { send_one_file(listener.get(), name); });
        const program_result got = console(a, {"get", "--port", std::to_string(a.port()), "x", inside});
        fake.join();
        EXPECT_EQ(got.status, name == "good" ? 0 : 2) << name << got.err;
    }
    EXPECT_EQ(names(a.path("in")), texts{"side"});
    EXPECT_EQ(names(inside), texts{"good"});
    struct stat info {};
    EXPECT_EQ(stat((inside + "/good").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0755U) << "no more than the permission bits";
}

} // namespace
