// Support library: clearing shared memory, whole frames within limits whatever the peer does, the
// form of the log's lines, what the configuration reader finds and says.
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <regex>

#include "checks.h"
#include "field.h"
#include "line_text.h"
#include "log_printf.h"
#include "printable.h"
#include "read_cfg.h"
#include "shmem.h"
#include "tcp_recv.h"
#include "tcp_send.h"

namespace {

using namespace test_support;

TEST(Library, ClearsExactlyTheBytesAskedFor) {
    constexpr std::size_t SIZE = 5 * 4096;
    agent keys; // removes what is left under them
    auto* segment = static_cast<char*>(keys.create_shm("SVC_HASH_TBL_SHMKEY", SIZE));
    std::string heap(SIZE, 'x');
    const std::pair<std::size_t, std::size_t> ranges[] = {
        {0, SIZE}, {1, SIZE - 2}, {4096, 8192}, {100, 50}, {4000, 200}, {4095, 4098}, {77, 0}};
    for (char* memory : {segment, heap.data()})
        for (const auto& [at, size] : ranges) {
            std::memset(memory, 'x', SIZE);
            agt::clear_shm(memory + at, size);
            std::string wanted(SIZE, 'x');
            wanted.replace(at, size, std::string(size, '\0'));
            EXPECT_TRUE(std::memcmp(memory, wanted.data(), SIZE) == 0) << at << " " << size;
        }
}

TEST(Library, StartsAFrameOverAndLimitsATrickle) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const agt::unique_fd server(ends[0]);
    const agt::unique_fd client(ends[1]);
    const timeval short_limit = {0, 50000};
    setsockopt(server.get(), SOL_SOCKET, SO_RCVTIMEO, &short_limit, sizeof short_limit);
    char received[4000] = {};
    EXPECT_EQ(agt::recv_tcp_data_timeout(server.get(), received, 1407, 0), -2);
    const std::string frame(1407, 'f');
    testing::internal::CaptureStdout();
    EXPECT_EQ(agt::send_tcp_data(client.get(), std::string(700, 'x').data(), 700), 700);
    EXPECT_EQ(agt::recv_tcp_data_timeout(server.get(), received, 1407, 10), -1); // no rest, twice
    EXPECT_TRUE(testing::internal::GetCapturedStdout().starts_with("read error!!, add_len : -1"));
    EXPECT_EQ(agt::send_tcp_data(client.get(), frame.data(), 1407), 1407);
    EXPECT_EQ(agt::recv_tcp_data_timeout(server.get(), received, 1407, 10), 1407);
    EXPECT_EQ(std::string(received, 1407), frame);
    std::atomic<bool> over{false};
    std::thread sender([&] { // never stalls
        while (!over && send(client.get(), "x", 1, MSG_NOSIGNAL) == 1)
            agt::sleep_ms(5);
    });
    const long long start_ms = agt::monotonic_ms();
    EXPECT_EQ(agt::recv_tcp_data_timeout(server.get(), received, sizeof received, 1), -1);
    EXPECT_LT(agt::monotonic_ms() - start_ms, 5000);
    over = true;
    sender.join();
}

TEST(Library, SendsToAPeerThatTakesLittleAtATime) {
    const agt::unique_fd listener(agt::open_tcp_server_session("127.0.0.1", 0));
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    std::thread peer([port = ntohs(address.sin_port)] { // there is room only after 10 seconds
        const agt::unique_fd taking(agt::create_tcp_client_session("127.0.0.1", port, 0));
        std::string taken(8000, 0);
        while (recv(taking.get(), taken.data(), taken.size(), MSG_WAITALL) > 0)
            agt::sleep_ms(100);
    });
    agt::unique_fd sender(agt::accept_tcpserver_connection(listener.get(), &address));
    const std::string bytes(5000000, 'b');
    EXPECT_EQ(agt::send_tcp_data(sender.get(), bytes.data(), 5000000), 5000000);
    reset_at_close(sender.get());
    sender.reset();
    peer.join();
}

class Log : public testing::Test {
  protected:
    agent directory;
    const std::string dir = directory.path("logs/proc/kessard");

    ~Log() override { agt::close_log(); }
};

TEST_F(Log, WritesLinesOfOneForm) {
    EXPECT_EQ(agt::open_log(dir.c_str(), "kessard", 1), 0);
    EXPECT_EQ(agt::open_log("/nowhere", "other", 1), 0); // open already: nothing changes
    agt::log_printf("one %d", 1);
    agt::log_printf("%s", "");
    agt::log_printf("ends in a newline\n");
    agt::log_printf("%s", std::string(5000, 'x').c_str());
    agt::close_log();
    agt::log_printf("dropped");
    EXPECT_EQ(agt::open_log(nullptr, nullptr, 0), 0); // the same file again
    agt::log_printf("appended");
    const std::string log = directory.log();
    EXPECT_TRUE(std::regex_search(log, std::regex("^\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d  one 1\n")));
    const texts wanted = {"one 1", "ends in a newline", "", std::string(4095, 'x'), "appended"};
    EXPECT_EQ(messages(log), wanted);
}

TEST_F(Log, KeepsLinesOfThreadsAndForkedChildrenWhole) {
    EXPECT_EQ(agt::open_log(dir.c_str(), "kessard", 1), 0);
    std::atomic<bool> go_on{true};
    std::atomic<std::size_t> written{0};
    const std::string line = "says " + std::string(200, 'a');
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] {
            for (; go_on; ++written)
                agt::log_printf("%s", line.c_str());
        });
    for (int i = 0; i < 40; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            agt::log_printf("%s", line.c_str());
            _exit(0);
        }
        EXPECT_TRUE(wait_until([child] { return waitpid(child, nullptr, WNOHANG) == child; }));
    }
    go_on = false;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(messages(directory.log()), texts(written + 40, line));
}

TEST_F(Log, StampsABatchWhenItLeaves) {
    const std::time_t midnight = std::time(nullptr) + 3;
    const zone_of_midnight zone(midnight);
    const std::string today = dir + local_text("/kessard-%Y-%m-%d-log", midnight);
    wait_until([&] { return std::time(nullptr) >= midnight - 2; }); // no second of another zone
    EXPECT_EQ(agt::open_log(dir.c_str(), "kessard", 1), 0);
    {
        const agt::log_batch batch;
        agt::log_printf("collected");
        agt::log_line("pi", std::string_view("eces"));
        wait_until([&] { return std::time(nullptr) >= midnight; });
    }
    EXPECT_EQ(messages(content(today)), (texts{"collected", "pieces"}));
    EXPECT_TRUE(content(today).starts_with(local_text("%m-%d 00:00:0", midnight)));
}

[[gnu::format(printf, 1, 2)]] void expect_as_printf(const char* fmt, ...) {
    char expected[4096];
    char made[4096];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(expected, sizeof expected, fmt, args);
    va_end(args);
    for (const std::size_t room : {sizeof made - 1, std::size_t{21}, std::size_t{5}}) {
        agt::line_text text(made, room);
        va_start(args, fmt);
        text.add_formatted(fmt, args);
        va_end(args);
        EXPECT_EQ(std::string_view(text), std::string_view(expected).substr(0, room));
    }
}

TEST(Library, FormsLinesAsPrintfDoes) {
    expect_as_printf("%s", "");
    expect_as_printf("(%s) %d,%d %u %ld %lu.", "text", INT_MIN, 7, UINT_MAX, LONG_MIN, ULONG_MAX);
    expect_as_printf("%d%% of %s, %c%c, 0x%x %5d %-4s|%.*s|%zu %lld", 3, "x", 'y', '\0', 255U, 4,
                     "z", 2, "cut", sizeof(int), 5LL);
    expect_as_printf("%s%c%s%%%.3f", "ends", '.', std::string(4096, 'x').c_str(), 1.5);
    char many[64];
    agt::line_text text(many, sizeof many);
    text.add("a literal");
    text.add(-12);
    text.add('c');
    text.add(agt::text_in<4>{"xyz", 2});
    text.add(agt::shown("exactly eight\r\n and more of it, which is cut"));
    EXPECT_EQ(std::string_view(text),
              "a literal-12cxyexactly eight\\x0d\\x0a and more of it, which is cu");
}

TEST(Library, ReadsNumbersOfFieldsAsStrtolDoes) {
    for (const char* text :
         {"", "7", "  42 ", "\t\v-3x", "+9", "+-9", "- 1", "x1", "0x1", "00012",
          "99999999999999999999", "-99999999999999999999", "123456789012345678901"}) {
        char field[22] = {};
        std::snprintf(field, sizeof field, "%s", text);
        field[21] = '1'; // the place of the terminator, which a peer may fill
        EXPECT_EQ(agt::get_long(field), std::strtol(text, nullptr, 10)) << text;
    }
}

TEST(Library, ShowsControlBytesAndLeavesTheOthers) {
    const std::string all = std::string("\0\x1f ~\x7f\x80\xff", 7) + "\n\t\\";
    const char field[] = {'a', '\n', 'b'};
    EXPECT_EQ(agt::printable(all, "\n").c_str() + std::string(agt::printable(field)),
              "\\x00\\x1f ~\\x7f\x80\xff\n\\x09\\a\\x0a");
}

std::string repeat(std::size_t n, char c) {
    return std::string(n, c);
}

// A comment of 300 characters is read as two lines; behind 255 of the other an entry begins.
const std::string CFG =
    "ONE = early\n[FIRST]\nONE = 1 2 3\nTIGHT=1\n\t INDENTED\t=  1\r\n#COMMENT = 1\n"
    "NOTE = a # note\n   \n\nEMPTY =\nBARE\n#" + // lines 7 to 11
    repeat(298, '-') +
    "\nLATE = x = y\n#" + repeat(254, '-') + "TAIL = 7\n" + // 12 to 16
    "MANY = 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17\nWIDE = " + repeat(63, 'w') + " " +
    repeat(64, 'w') + "\nONE = second\n[ABD] ABC\nIN_ABD = yes\n[OPEN\n[FIRST]\nSECOND = 1\n" +
    "[LAST]\nIN_LAST = end"; // line 25, without a line end

TEST(ReadCfg, FindsTheWordOrSaysWhyNot) {
    const std::string no = "[get_string_in_section] not found keyword[";
    const std::string unfound = "]; file=FILE, section=FIRST\n";
    const std::string few = " token; file=FILE, section=FIRST, keyword=ONE, lnum=3\n";
    // The word, or what standard error ends with.
    const std::tuple<std::string, std::string, int, std::string, std::string> cases[] = {
        {"FIRST", "ONE", 1, "1", ""},
        {"FIRST", "ONE", 3, "3", ""},
        {"FIRST", "ONE", 4, "", "can't found nth(4)" + few},
        {"FIRST", "ONE", 0, "", "can't found nth(0)" + few},
        {"FIRST", "TIGHT", 1, "", no + "TIGHT]\n" + no + "TIGHT" + unfound},
        {"FIRST", "INDENTED", 1, "1", ""},
        {"FIRST", "COMMENT", 1, "", no + "COMMENT" + unfound},
        {"FIRST", "one", 1, "", no + "one" + unfound},
        {"FIRST", "NOTE", 2, "#", ""},
        {"FIRST", "EMPTY", 1, "", "section=FIRST, keyword=EMPTY, lnum=10\n"},
        {"FIRST", "BARE", 1, "", "section=FIRST, keyword=BARE, lnum=11\n"},
        {"FIRST", "LATE", 2, "=", ""},
        {"FIRST", "TAIL", 2, "", "section=FIRST, keyword=TAIL, lnum=16\n"},
        {"FIRST", "MANY", 16, "16", ""},
        {"FIRST", "MANY", 17, "", "section=FIRST, keyword=MANY, lnum=17\n"},
        {"FIRST", "WIDE", 2, repeat(64, 'w'), ""},
        {"FIRST", "SECOND", 1, "", no + "SECOND" + unfound},
        {"ABC", "IN_ABD", 1, "yes", ""},
        {"LAST", "IN_LAST", 1, "end", ""},
        {"OPEN", "ONE", 1, "", "[seek_section] not found section[OPEN] in file[FILE]\n"}};
    agent directory;
    directory.write_file("cfg", CFG);
    const std::string file = directory.path("cfg");
    for (const auto& [section, keyword, n, wanted, complaint] : cases) {
        std::string said = complaint;
        if (const std::size_t at = said.find("FILE"); at != std::string::npos)
            said.replace(at, 4, file);
        char word[agt::CFG_WORD_SIZE] = "untouched";
        testing::internal::CaptureStderr();
        const int ret = agt::get_nth_token_in_file_section(file.c_str(), section.c_str(),
                                                           keyword.c_str(), n, word);
        const std::string got = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(said.empty() ? got.empty() : got.ends_with(said)) << got;
        EXPECT_EQ(ret, said.empty() ? 1 : -1) << keyword;
        EXPECT_EQ(word, said.empty() ? wanted : "untouched");
    }
    // When it cannot complain errno stays, by which callers know a file that cannot be read.
    char word[agt::CFG_WORD_SIZE];
    const agt::unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    const agt::unique_fd usual(dup(STDERR_FILENO));
    dup2(full.get(), STDERR_FILENO);
    errno = 0;
    EXPECT_EQ(agt::get_nth_token_in_file_section(file.c_str(), "FIRST", "ABSENT", 1, word), -1);
    EXPECT_EQ(errno, 0);
    dup2(usual.get(), STDERR_FILENO);
}

} // namespace
