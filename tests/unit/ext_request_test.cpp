// Extended requests, served by a forked child over a connection as the daemon does it: every answer to the byte, every
// error text.
#include "ext_request.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>

#include "process.h"
#include "subprocess.h"
#include "tcp_base.h"
#include "trace_table.h"
#include "unique_fd.h"

namespace {

using namespace std::string_literals;
using test_support::texts;

std::string on_wire(long value) {
    const std::uint32_t number = htonl(static_cast<std::uint32_t>(value));
    return {reinterpret_cast<const char*>(&number), sizeof number};
}

std::string header(char status, long length) {
    char host[64] = {};
    gethostname(host, sizeof host);
    return "\x90\x85\x20\x83"s + status + std::string(host, sizeof host) + on_wire(length);
}

std::string refusal(const std::string& text) {
    return header('E', static_cast<long>(text.size())) + text;
}

std::string result(int exit_code, const std::string& output) {
    return on_wire(exit_code) + on_wire(static_cast<long>(output.size())) + output;
}

std::string commands(const std::string& results) {
    return header('A', static_cast<long>(results.size())) + results;
}

std::string items(const texts& of) {
    std::string joined;
    for (const std::string& item : of)
        joined += (&item == &of[0] ? "" : "\x1f") + item;
    return joined;
}

class ExtRequest : public testing::Test {
  protected:
    ~ExtRequest() override { finish(); }

    // Has a child serve a request; `prepare` runs in it first.
    void start(
        const std::string& code, const std::string& data, const std::function<void()>& prepare = [] {}) {
        finish();
        log.clear();
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        peer.reset(ends[0]);
        served.reset(ends[1]);
        const timeval limit = {1, 0}; // as accepted connections have it
        setsockopt(served.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        std::string frame = "\x90\x85\x20\x83\x02" + code + data;
        frame.resize(TCP_CMD_MSG_SIZE);
        std::fflush(stdout);
        child = fork();
        if (child != 0) {
            if (!keep_served)
                served.reset();
            return;
        }
        peer.reset();
        agt::restore_signals();
        if (std::freopen((dir + "/out").c_str(), "w", stdout) == nullptr)
            _exit(9);
        prepare();
        kessard::serve_ext_request(served.get(), reinterpret_cast<const unsigned char*>(frame.data()),
                                   TCP_CMD_MSG_SIZE);
        agt::close_tcp_session(served.get());
        std::fflush(stdout);
        _exit(0);
    }
    // Everything that comes until the child closes the connection, or `most` bytes.
    std::string receive(std::size_t most = SIZE_MAX) {
        std::string all;
        char piece[65536];
        while (all.size() < most &&
               agt::wait_fd(peer.get(), POLLIN, test_support::LIMIT_MS) == agt::wait_result::ready) {
            const ssize_t got = read(peer.get(), piece, std::min(sizeof piece, most - all.size()));
            if (got < 1)
                break;
            all.append(piece, static_cast<std::size_t>(got));
        }
        return all;
    }
    // A whole request: the answer, once the child has ended as it must.
    std::string ask(
        const std::string& code, const std::string& data, const std::function<void()>& prepare = [] {}) {
        start(code, data, prepare);
        const std::string answer = receive();
        finish();
        return answer;
    }
    void send(const std::string& bytes) {
        EXPECT_EQ(agt::send_tcp_data(peer.get(), bytes.data(), static_cast<int>(bytes.size())),
                  static_cast<int>(bytes.size()));
    }
    void finish() {
        if (child == -1)
            return;
        int status = -1;
        EXPECT_TRUE(test_support::wait_until([&] { return waitpid(child, &status, WNOHANG) == child; }));
        EXPECT_EQ(status, 0);
        child = -1;
        peer.reset();
        served.reset();
    }
    std::string path(const std::string& name) const { return dir + "/" + name; }
    void write_file(const std::string& name, const std::string& text, mode_t mode = 0644) const {
        std::ofstream(path(name)) << text;
        chmod(path(name).c_str(), mode);
    }
    static std::string content(const std::string& file) {
        std::ifstream in(file);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    static mode_t mode_of(const std::string& file) {
        struct stat info {};
        stat(file.c_str(), &info);
        return info.st_mode;
    }

    test_support::test_log log;
    const std::string dir = log.directory();
    agt::unique_fd peer;
    agt::unique_fd served;
    bool keep_served = false;
    pid_t child = -1;
};

TEST_F(ExtRequest, RefusesWhatIsNoRequestWithoutAnAnswer) {
    EXPECT_EQ(ask("0001", "Xecho a"), "");
    EXPECT_EQ(log.lines(), texts{"<!> unsupported  EXT_PDU = |X|"});
    EXPECT_EQ(ask("0004", "Recho a"), "");
    EXPECT_EQ(log.lines(), texts{"<!> unsupported EXT_REQ = |0004|"});
}

TEST_F(ExtRequest, RunsCommandsInOrder) {
    EXPECT_EQ(ask("0001", "R" + items({"echo a", "exit 3", "echo e >&2; exit 4", "kill -9 $$", "echo $0; kill -9 $$"})),
              commands(result(0, "a\n") + result(-1, "") + result(4, "e\n") + result(-1, "") + result(-1, "sh\n")));
    EXPECT_EQ(log.lines(), (texts{"(i) MSGRCV : [[ EXT_REQ - SVC_CMD ]] len=1398, timeout=10",
                                  "(i) send header... ok.. len=(73)", "(i) send datas... ok.. len=(47)"}));
    EXPECT_EQ(ask("0001", "R"), commands(""));
    EXPECT_EQ(log.count("<!> send_cmd_response() error.. len=0"), 1U);
    const std::string longest(1397 - 5, 'x'); // fills the frame to its last byte
    EXPECT_EQ(ask("0001", "Recho " + longest), commands(result(0, longest + "\n")));
}

TEST_F(ExtRequest, TheTimeValueBoundsTheNumberOfCommands) {
    const std::string a = result(0, "a\n");
    EXPECT_EQ(ask("1001", "R" + items({"2", "echo a", "echo b", "echo c"})),
              commands(a + result(0, items({"b", "echo c\n"}))));
    EXPECT_EQ(log.count("[[ EXT_REQ - SVC_CMD ]] len=1395, timeout=2"), 1U);
    for (const char* value : {"0", "", "x"}) {
        EXPECT_EQ(ask("1001", "R" + items({value, "echo a", "echo a"})), commands(a + a)) << value;
        EXPECT_EQ(log.count("timeout=10"), 1U);
    }
    EXPECT_EQ(ask("1001", "R" + items({"-3", "echo a"})), commands(""));
    EXPECT_EQ(ask("1001", "Recho a"), commands(a)); // no separator, so no value
    EXPECT_EQ(ask("1001", "R7>&1 printf n"), commands(result(0, "n")));
    EXPECT_EQ(log.count("len=1398, timeout=7"), 1U);
    std::string all;
    for (int i = 0; i < 29; ++i)
        all += result(0, "\n");
    texts many(29, "echo");
    many.insert(many.end(), {"echo x", "echo y"});
    EXPECT_EQ(ask("1001", "R99999999999\x1f" + items(many)), commands(all + result(0, items({"x", "echo y\n"}))));
    EXPECT_EQ(log.count("timeout=2147483647"), 1U);
}

TEST_F(ExtRequest, DropsARequestThatEndsWithItsTimeValue) {
    EXPECT_EQ(ask("1001", "R" + std::string(1396, '3') + "\x1f"), "");
    EXPECT_EQ(log.lines().back(), "<!> decode_cmd_packet() error! buffer is null.. len=(0)");
    EXPECT_FALSE(kessard::decode_cmd_packet(nullptr, 5, nullptr, 10));
    EXPECT_EQ(log.lines().back(), "<!> decode_cmd_packet() error! buffer is null.. len=(5)");
}

TEST_F(ExtRequest, ACommandBeyondItsLimitHasACodeOfItsOwn) {
    const long long start_ms = agt::monotonic_ms();
    EXPECT_EQ(ask("1001", "R" + items({"1", "echo a; exec sleep 60"})), commands(result(-99, "a\n")));
    EXPECT_GE(agt::monotonic_ms() - start_ms, 9000);
    EXPECT_LT(agt::monotonic_ms() - start_ms, 18000);
}

TEST_F(ExtRequest, ACommandThatCannotBeStartedHasAnEmptyResult) {
    const auto no_descriptors = [this] {
        const rlimit limit = {static_cast<rlim_t>(dup(served.get())), 100};
        setrlimit(RLIMIT_NOFILE, &limit);
    };
    EXPECT_EQ(ask("0001", "Recho a", no_descriptors), commands(result(0, "")));
}

TEST_F(ExtRequest, TellsTheLogWhenThePeerIsGone) {
    start("0001", "Rsleep 0.2; echo a");
    peer.reset();
    finish();
    EXPECT_EQ(log.count("<!> tcp error.. for header: -1"), 1U);
    EXPECT_EQ(log.count("<!> send_cmd_response() error.. len=-1"), 1U);
    start("0001", "R" + items({"echo a", "head -c 3000000 /dev/zero"}));
    EXPECT_EQ(receive(83).size(), 83U);
    peer.reset();
    finish();
    EXPECT_EQ(log.lines().back(), "(i) send datas... ok.. len=(10)");
}

TEST(CmdExec, IsShownForDebugging) {
    std::string data = items({"echo a", "exit 3"});
    kessard::ST_CMD_EXEC exec{};
    ASSERT_TRUE(kessard::decode_cmd_packet(data.data(), static_cast<int>(data.size()), &exec, 10));
    exec.type = 'c';
    testing::internal::CaptureStdout();
    kessard::dump_cmd_exec(&exec);
    const std::string line(30, '-');
    const std::string double_line(30, '=');
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              double_line + "\ntype          = |c|\ntot_length    = |18|\ncmd_count     = |2|\n 0 : |echo a|\n" +
                  " 1 : |exit 3|\nexit_code=|0|, data_length=|2|\n|a\n|\n" + line +
                  "\nexit_code=|-1|, data_length=|0|\n||\n" + line + "\n" + double_line + "\n");
    kessard::free_outputs(&exec);
    EXPECT_EQ(exec.outputs[0].buf_p, nullptr);
}

TEST_F(ExtRequest, WritesUploadedFilesExactly) {
    setenv("KT_UP", "up", 1);
    write_file("longer", "much longer than what comes");
    std::filesystem::create_directories(path("up/x"));
    std::filesystem::rename(path("longer"), path("up/x/longer"));
    const std::string big(2500000, 'b');
    start("0002",
          "R" + items({dir + "/$KT_UP/x", "longer", "5", "493", "big", "2500000", "33152", "empty", "0", "420", "minus",
                       "-7", "2560", "word", "w", "w"}),
          [] { umask(077); });
    EXPECT_EQ(receive(73), header('A', 0));
    send("12345" + big);
    EXPECT_EQ(receive(), "");
    finish();
    const std::string x = path("up/x/");
    EXPECT_EQ(content(x + "longer"), "12345");
    EXPECT_EQ(content(x + "big"), big);
    EXPECT_EQ(mode_of(x + "longer"), S_IFREG | 0755U);
    EXPECT_EQ(mode_of(x + "big"), S_IFREG | 0600U);
    EXPECT_EQ(mode_of(x + "empty"), S_IFREG | 0644U);
    EXPECT_EQ(mode_of(x + "minus"), S_IFREG | 05000U);
    EXPECT_EQ(mode_of(x + "word"), static_cast<mode_t>(S_IFREG));
    const texts lines = log.lines();
    ASSERT_EQ(lines.size(), 11U);
    EXPECT_EQ(lines[0], "(i) MSGRCV : [[ EXT_REQ - SVC_FILE_UP ]] ");
    EXPECT_EQ(lines[3], "(i) start (2/5) - file=|" + x + "big|, size=|2500000|");
    EXPECT_EQ(lines[4], "(i) ok    (2/5) - file=|" + x + "big|, total recv size=|2500000|");
    EXPECT_EQ(lines[7], "(i) start (4/5) - file=|" + x + "minus|, size=|-7|");
}

TEST_F(ExtRequest, RefusesAnUploadThatCannotBe) {
    write_file("file", "kept");
    std::filesystem::create_symlink(dir, path("link"));
    const std::string too_long = dir + "/" + std::string(512, 'd');
    const std::pair<std::string, std::string> refused[] = {
        {"", "makedir() failed..."},
        {items({"/proc/none", "f", "1", "420"}), "makedir(/proc/none) failed..."},
        {items({path("link"), "f", "1", "420"}), "makedir(" + path("link") + ") failed..."},
        {items({too_long, "f", "1", "420"}), "makedir(" + too_long + ") failed..."},
        {items({dir, "f", "1", "420", "g"}), "invalid data... count=5, type=2, |" + dir + "|"},
        {dir + "\x1f" + items(texts(30, "1")), "invalid data... count=30, type=2, |" + dir + "|"},
    };
    for (const auto& [data, text] : refused) {
        EXPECT_EQ(ask("0002", "R" + data), refusal(text));
        EXPECT_EQ(log.lines().back(), "<!> " + text);
    }
    EXPECT_EQ(ask("0002", "R" + dir), header('A', 0)); // no file at all
}

TEST_F(ExtRequest, RefusesAnUploadTargetThatIsNoRegularFile) {
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    const agt::unique_fd reader(open(path("fifo").c_str(), O_RDONLY | O_NONBLOCK));
    ASSERT_EQ(mkfifo(path("nobody").c_str(), 0600), 0);
    const std::pair<std::string, std::string> targets[] = {
        {dir, "fifo"}, {dir, "nobody"}, {"/dev", "null"}, {dir, ""}, {dir, std::string(256, 'n')}, {dir, "none/x"}};
    for (const auto& [directory, name] : targets) {
        const std::string text = "can't open file |" + directory + "/" + name + "|";
        EXPECT_EQ(ask("0002", "R" + items({directory, name, "5", "420"})), header('A', 0) + refusal(text));
        EXPECT_EQ(log.lines().back(), "<!> " + text);
    }
}

TEST_F(ExtRequest, EndsAnUploadWhoseBytesDoNotCome) {
    for (const bool vanish : {true, false}) {
        start("0002", "R" + items({dir, "f", "2000000", "420"}));
        EXPECT_EQ(receive(73), header('A', 0));
        send(std::string(1500000, 'x'));
        if (vanish)
            shutdown(peer.get(), SHUT_WR);
        EXPECT_EQ(receive(), header('E', 0));
        finish();
        EXPECT_EQ(log.lines().back(),
                  vanish ? "<!> recv_tcp_data_timeout error!! |0|" : "<!> recv_tcp_data_timeout error!! |-1|");
        EXPECT_EQ(std::filesystem::file_size(path("f")), 1048576U);
    }
}

TEST_F(ExtRequest, TellsThePeerOfAFullDisk) {
    start("0002", "R" + items({dir, "f", "2000000", "420"}), [] {
        const rlimit limit = {300000, 300000};
        setrlimit(RLIMIT_FSIZE, &limit);
    });
    EXPECT_EQ(receive(73), header('A', 0));
    send(std::string(1048576, 'x'));
    const std::string text = "can't write file |" + path("f") + "|";
    EXPECT_EQ(receive(), refusal(text));
    finish();
    EXPECT_EQ(log.lines().back(), "<!> " + text);
}

TEST_F(ExtRequest, TellsThePeerWhenThereIsNoMemory) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer needs address space of its own";
#endif
    const auto no_memory = [] {
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_AS, &none);
        void* volatile taken; // what the heap has left
        do
            taken = std::malloc(1 << 20);
        while (taken != nullptr);
    };
    for (const char* code : {"0002", "0003"})
        EXPECT_EQ(ask(code, "R" + dir, no_memory), refusal("RECV_MAX_SIZE malloc error!!"));
    EXPECT_EQ(log.lines().back(), "<!> RECV_MAX_SIZE malloc error!!");
}

std::string announcement(const texts& files, const texts& names) {
    std::string body = on_wire(static_cast<long>(files.size()));
    for (std::size_t i = 0; i < files.size(); ++i) {
        struct stat info {};
        stat(files[i].c_str(), &info);
        std::string name = names[i];
        name.resize(128);
        body += on_wire(info.st_size) + on_wire(info.st_mode) + name;
    }
    return header('A', static_cast<long>(body.size())) + body;
}

TEST_F(ExtRequest, SendsFilesExactly) {
    setenv("KT_DOWN", dir.c_str(), 1);
    const std::string long_name(200, 'n');
    write_file("small", "12345", 04711);
    write_file("empty", "");
    write_file(long_name, std::string(1500000, 'b'), 0600);
    start("0003", "R" + items({"$KT_DOWN/small", path("empty"), path(long_name)}));
    const std::string expected =
        announcement({path("small"), path("empty"), path(long_name)}, {"small", "empty", std::string(127, 'n')}) +
        "12345" + std::string(1500000, 'b');
    EXPECT_EQ(receive(expected.size()), expected);
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0); // waits for the acknowledgement
    send("k");
    EXPECT_EQ(receive(), "");
    finish();
    EXPECT_EQ(log.lines(), (texts{"(i) MSGRCV : [[ EXT_REQ - SVC_FILE_DOWN ]] ", "(i) send file count(3)",
                                  "(i) (0/3) start send file=|" + path("small") + "|",
                                  "(i) (0/3) ok    send file=|" + path("small") + "|, size=|5|",
                                  "(i) (1/3) start send file=|" + path("empty") + "|",
                                  "(i) (1/3) ok    send file=|" + path("empty") + "|, size=|0|",
                                  "(i) (2/3) start send file=|" + path(long_name) + "|",
                                  "(i) (2/3) ok    send file=|" + path(long_name) + "|, size=|1500000|"}));
    EXPECT_EQ(content(path("out")), "read_len = 5\nread_len = 0\nread_len = 1500000\n");
}

TEST_F(ExtRequest, RefusesADownloadOfWhatIsNoRegularFile) {
    write_file("file", "text");
    std::filesystem::create_symlink(path("file"), path("link"));
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    write_file("huge", "");
    ASSERT_EQ(truncate(path("huge").c_str(), 0x100000000), 0); // more than can be announced
    const texts many(31, path("file").substr(0, 40));
    for (const std::string& name : {path("link"), path("none"), dir, path("fifo"), "/dev/null"s, path("huge"),
                                    dir + "/" + std::string(512, 'p'), "$KT_UNSET/file"s, ""s}) {
        const std::string text = "invliad file=|" + name + "|";
        EXPECT_EQ(ask("0003", "R" + items({path("file"), name})), refusal(text));
        EXPECT_EQ(log.lines().back(), "<!> " + text);
    }
    EXPECT_EQ(ask("0003", "R" + items(many)), refusal("invliad file=|" + items({many[0], many[0]}) + "|"));
}

// The child hangs in its first file until the peer reads it; meanwhile the others change behind their announcement.
TEST_F(ExtRequest, SendsNoMoreThanItAnnounced) {
    write_file("big", std::string(3000000, 'b'));
    write_file("grown", "1234");
    write_file("shrunk", "1234");
    write_file("gone", "1234");
    write_file("last", "1234");
    const texts files = {path("big"), path("grown"), path("shrunk"), path("gone"), path("last")};
    const std::string expected = announcement(files, {"big", "grown", "shrunk", "gone", "last"});
    start("0003", "R" + items(files));
    EXPECT_EQ(receive(expected.size()), expected);
    write_file("grown", "12345678");
    write_file("shrunk", "12");
    std::filesystem::remove(path("gone"));
    const std::string sent = std::string(3000000, 'b') + "1234" + "12";
    EXPECT_EQ(receive(sent.size()), sent);
    send("k");
    EXPECT_EQ(receive(), "");
    finish();
    EXPECT_EQ(log.count("(1/5) ok    send file=|" + path("grown") + "|, size=|4|"), 1U);
    EXPECT_EQ(log.count("(2/5) ok    send file=|" + path("shrunk") + "|, size=|2|"), 1U);
    EXPECT_EQ(log.lines().back(), "<!> fopen error.... |" + path("gone") + "|");
}

TEST_F(ExtRequest, EndsADownloadThatNobodyTakes) {
    write_file("big", std::string(3000000, 'b'));
    write_file("next", "1234");
    start("0003", "R" + items({path("big"), path("next")}));
    EXPECT_EQ(receive(1000000).size(), 1000000U);
    peer.reset();
    finish();
    EXPECT_EQ(log.count("<!> error for send file data.... |" + path("big") + "|"), 1U);
    EXPECT_EQ(log.lines().back(), "<!> error for send file data.... |" + path("next") + "|");
}

// Fills the way to the peer so that just one more message of a header's size fits.
void leave_room_for_a_header(int served, int peer) {
    char message[73] = {};
    const int smallest = 1;
    setsockopt(served, SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest);
    while (write(served, message, sizeof message) == static_cast<ssize_t>(sizeof message))
        continue;
    EXPECT_EQ(read(peer, message, sizeof message), static_cast<ssize_t>(sizeof message));
}

TEST_F(ExtRequest, TellsTheLogWhichPartOfAnAnswerFailed) {
    write_file("file", "1234");
    const auto peer_gone = [this] { shutdown(served.get(), SHUT_RDWR); };
    EXPECT_EQ(ask("0002", "R" + dir, peer_gone), "");
    EXPECT_EQ(log.lines().back(), "<!> send_tcp_data for response");
    EXPECT_EQ(ask("0003", "R" + path("file"), peer_gone), "");
    EXPECT_EQ(log.lines().back(), "file_download(): send fail for mb len=(-1)");

    const auto wait_for_go = [this] {
        char byte;
        agt::recv_tcp_data_timeout(served.get(), &byte, 1, 20);
    };
    keep_served = true;
    start("0003", "R" + path("file"), wait_for_go);
    fcntl(served.get(), F_SETFL, O_NONBLOCK);
    leave_room_for_a_header(served.get(), peer.get());
    int before = 0;
    int after = 0;
    ioctl(peer.get(), FIONREAD, &before);
    served.reset();
    send("g");
    EXPECT_TRUE(test_support::wait_until([&] { return ioctl(peer.get(), FIONREAD, &after) == 0 && after > before; }));
    peer.reset();
    finish();
    EXPECT_EQ(log.lines().back(), "file_download(): send fail for body len=(-1)");
}

} // namespace
