// Shell commands for the central server, through the real program and the console.
#include "ext_peer.h"
#include "served_agent.h"

namespace {

using namespace test_support;

std::string result(int exit_code, const std::string& output) {
    return on_wire(exit_code) + on_wire(static_cast<std::int64_t>(output.size())) + output;
}

std::string accepted(const std::string& results) {
    return ext_answer('A', results);
}

// In the foreground and as a daemon.
class RemoteCommand : public testing::TestWithParam<bool> {
  protected:
    agent a;

    RemoteCommand() { start(); }
    void start() {
        GetParam() ? a.start_daemon() : a.start();
        EXPECT_TRUE(a.wait_log("start... running : 1"));
    }
};

INSTANTIATE_TEST_SUITE_P(Modes, RemoteCommand, testing::Bool(), [](const auto& mode) {
    return std::string(mode.param ? "daemon" : "foreground");
});

TEST_P(RemoteCommand, ExitCodesAndOutputInOrder) {
    const texts items = {"echo a", "exit 3", "echo e >&2; exit 4", "echo $0; kill -9 $$",
                         "printf '\\0x'"};
    EXPECT_EQ(ask_ext(a, "0001R" + ext_items(items)),
              accepted(result(0, "a\n") + result(-1, "") + result(4, "e\n") + result(-1, "sh\n") +
                       result(0, std::string("\0x", 2))));
    EXPECT_TRUE(
        in_order(a, {"(i) MSGRCV : [[ EXT_REQ - SVC_CMD ]] len=1398, timeout=10\n",
                     "(i) send header... ok.. len=(73)\n", "(i) send datas... ok.. len=(49)\n"}));
    EXPECT_EQ(ask_ext(a, "0001R"), accepted(""));
    EXPECT_EQ(a.count_log("<!> send_cmd_response() error.. len=0"), 1U);
    const std::string longest(1397 - 5, 'x'); // fills the frame to its last byte
    EXPECT_EQ(ask_ext(a, "0001Recho " + longest), accepted(result(0, longest + "\n")));
    const std::string look = "grep -E '^Sig(Blk|Ign)' /proc/self/status; ls /proc/self/fd | wc -l";
    const std::string none = "0000000000000000\n";
    EXPECT_EQ(ask_ext(a, "0001R" + look), // three files and the directory
              accepted(result(0, "SigBlk:\t" + none + "SigIgn:\t" + none + "4\n")));
    const std::string modes = "umask; stat -c %a " + a.path("logs/proc/kessard/*");
    EXPECT_TRUE(!GetParam() || // a daemon's own mask is empty
                ask_ext(a, "0001R" + modes) == accepted(result(0, "0022\n644\n")));
}

TEST_P(RemoteCommand, ABackgroundCommandDoesNotHoldThePort) {
    const pid_t left =
        std::stoi(ask_ext(a, "0001Rsleep 300 >/dev/null 2>&1 & echo $!").substr(73 + 8));
    const texts standard_files(3, "/dev/null");
    EXPECT_TRUE(wait_until([&] { return open_files(left) == standard_files; }));
    const ext_peer served(a, "0001Rsleep 300"); // nor does the child that serves one
    EXPECT_TRUE(wait_until([&] { return a.count_log("[[ EXT_REQ - SVC_CMD ]]") == 2; }));
    a.signal(SIGKILL); // with no chance to shut the port down
    EXPECT_EQ(a.wait_exit(), 128 + SIGKILL);
    a.mark_log();
    start();
    EXPECT_TRUE(answers(a));
    EXPECT_EQ(kill(left, 0), 0);
}

class RemoteCommandOnce : public testing::Test {
  protected:
    agent a;
    RemoteCommandOnce() { start_running(a); }
};

TEST_F(RemoteCommandOnce, TheTimeValueBoundsTheNumberOfCommands) {
    const std::string a_line = result(0, "a\n");
    texts many(29, "echo");
    many.insert(many.end(), {"echo x", "echo y"});
    std::string thirty;
    for (int i = 0; i < 29; ++i)
        thirty += result(0, "\n");
    const std::string separator = "\x1f";
    const std::tuple<std::string, std::string, const char*> cases[] = {
        {ext_items({"2", "echo a", "echo b", "echo c"}),
         a_line + result(0, "b" + separator + "echo c\n"), "len=1395, timeout=2"},
        {ext_items({"4294967296", "echo a", "echo a"}), a_line + a_line, "timeout=10"}, // 0
        {ext_items({"x", "echo a", "echo a"}), a_line + a_line, "timeout=10"},
        {ext_items({"-3", "echo a"}), "", "timeout=-3"},
        {"echo a", a_line, "timeout=10"}, // no separator, so no value
        {"7>&1 printf n", result(0, "n"), "len=1398, timeout=7"},
        {"99999999999" + separator + ext_items(many),
         thirty + result(0, "x" + separator + "echo y\n"), "timeout=1215752191\n"}};
    for (const auto& [items, results, logged] : cases) {
        a.mark_log();
        EXPECT_EQ(ask_ext(a, "1001R" + items), accepted(results)) << items;
        EXPECT_EQ(a.count_log(logged), 1U) << items;
    }
    EXPECT_EQ(ask_ext(a, "1001R" + std::string(1396, '3') + separator), ""); // nothing behind it
    EXPECT_TRUE(a.wait_log("<!> decode_cmd_packet() error! buffer is null.. len=(0)"));
}

TEST_F(RemoteCommandOnce, TellsTheLogWhenThePeerIsGoneOrAsksForAnotherThing) {
    EXPECT_EQ(ask_ext(a, "0001\necho a") + ask_ext(a, "7\n77Recho a"), "");
    EXPECT_TRUE(a.wait_log("<!> unsupported  EXT_PDU = |\\x0a|\n"));
    EXPECT_TRUE(a.wait_log("<!> unsupported EXT_REQ = |7\\x0a77|\n"));
    ext_peer gone(a, "0001Rsleep 0.3; echo a");
    EXPECT_TRUE(a.wait_log("[[ EXT_REQ - SVC_CMD ]]"));
    reset_at_close(gone.client.fd());
    gone.client.close();
    EXPECT_TRUE(a.wait_log("<!> send_cmd_response() error.. len=-1\n"));
    EXPECT_EQ(a.count_log("<!> tcp error.. for header: -1\n"), 1U);
    const std::string much = "0001R" + ext_items({"echo a", "head -c 9000000 /dev/zero"});
    EXPECT_EQ(ext_peer(a, much).receive(83).size(), 83U);
    EXPECT_TRUE(a.wait_log("datas... ok.. len=(18)\n")); // the first, and the head of the second
    EXPECT_EQ(ext_peer(a, "0001Rhead -c 9000000 /dev/zero").receive(80).size(), 80U);
    EXPECT_TRUE(in_order(a, {"=(18)\n", "(i) send header... ok.. len=(73)\n", "len=(8)\n"}));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // too slow for 10 seconds
    ask_ext(a, "0001Rhead -c 67108864 /dev/zero");
    EXPECT_EQ(a.count_log("<!> output of a command is cut at 67108863 bytes\n"), 1U);
#endif
    EXPECT_TRUE(wait_until([&] { return children(a.pid()).empty(); }));
}

TEST(ConsoleExec, ShowsNothingThatDidNotCome) {
    const agent a;
    const agt::unique_fd listener(agt::open_tcp_server_session("127.0.0.1", a.port()));
    std::thread fake([&] {
        sockaddr_in peer{};
        EXPECT_EQ(agt::wait_fd(listener.get(), POLLIN, LIMIT_MS), agt::wait_result::ready);
        const agt::unique_fd sockfd(agt::accept_connection(listener.get(), &peer).sockfd);
        std::string answer = accepted(result(0, std::string(5000, 'x')));
        answer.resize(answer.size() - 4000);
        EXPECT_EQ(write(sockfd.get(), answer.data(), answer.size()), std::ssize(answer));
        recv(sockfd.get(), answer.data(), TCP_CMD_MSG_SIZE, MSG_WAITALL);
    });
    EXPECT_TRUE(a.run({"exec", "--port", std::to_string(a.port()), "cat file"})
                    .starts_with("2\n$ cat file\n-> the answer broke off, its end is not known\n"));
    fake.join();
}

TEST_F(RemoteCommandOnce, ConsoleExec) {
    const std::string silent = "$ true\n-> no output, exit status unknown\n";
    const std::string longest = "exit 3 #" + std::string(1390 - 8, 'x');
    const std::pair<texts, std::string> cases[] = {
        {{"exec", "--timeout", "2", "echo a", "echo b", "echo c; exit 4"},
         "1\n$ echo a\na\n-> exit status 0\n$ echo b\nb\n-> exit status 0\n"
         "$ echo c; exit 4\nc\n-> exit status 4\n"},
        {{"exec", "--raw", "true"}, "0\n" + silent},
        {{"exec", "--raw", "--strict", "true"}, "1\n" + silent},
        {{"exec", "true", "# no"}, "0\n$ true\n-> exit status 0\n$ # no\n-> exit status 0\n"},
        {{"exec", "exec false"}, "1\n$ exec false\n-> exit status 1\n"},
        {{"exec", "cat <<x\n\na\nx"}, "0\n$ cat <<x\n\na\nx\n\na\n-> exit status 0\n"},
        {{"exec", "kill -9 $$"}, "1\n$ kill -9 $$\n-> ended by a signal\n"},
        {{"exec", ";"}, "1\n$ ;\nsh: 1: Syntax error: \";;\" unexpected\n-> exit status 2\n"},
        {{"exec", longest}, "1\n$ " + longest + "\n-> exit status 3\n"},
        {{"exec", longest + "xxx"},
         "0\n$ " + longest + "xxx\n-> no output, exit status unknown\n"}};
    for (const auto& [words, shown] : cases)
        EXPECT_EQ(a.run(words), shown);
    for (const std::string& refused : {"echo a\x1f" + std::string("b"), std::string(1398, 'x')})
        EXPECT_EQ(a.console({"exec", refused}).status, 2);
    EXPECT_EQ(a.count_log("len=1395, timeout=2"), 2U); // the third is no piece of the second
    const std::string line = KESSCTL_PROGRAM " exec \"printf 'a\\\\033[2J\\\\tb'\"";
    const texts on_terminal = {"/usr/bin/script", "-qec", line, "/dev/null"};
    EXPECT_TRUE(in_order(run_program(on_terminal, a.variables).out, {"\na\\x1b[2J\tb\r\n-> exit"}));
    const long long start_ms = agt::monotonic_ms();
    EXPECT_TRUE(in_order(a.run({"exec", "exec sleep 60"}), {"1\n", "60\n-> time-out"})); // 10 s
    EXPECT_GE(agt::monotonic_ms() - start_ms, 9000);
}

} // namespace
