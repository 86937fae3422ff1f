// File transfer through the real program and the console: every answer to the byte, every error.
#include "ext_peer.h"
#include "served_agent.h"
#include "tcp_recv.h"
#include "tcp_send.h"

namespace {

using namespace std::string_literals;
using namespace test_support;

struct stat status(const std::string& file) {
    struct stat info {};
    stat(file.c_str(), &info);
    return info;
}

mode_t permission(const std::string& file) {
    return status(file).st_mode & 07777;
}

const std::string ACCEPTED = ext_answer('A', "");

class FileTransfer : public testing::Test {
  protected:
    agent a;
    const std::string dir = a.home();

    FileTransfer() {
        a.variables["KT_HOME"] = dir;
        const mode_t before = umask(077); // the daemon's too
        start_running(a);
        umask(before);
    }
    std::string path(const std::string& name) const { return dir + "/" + name; }
    std::string ask(const std::string& request) {
        a.mark_log();
        return ask_ext(a, request);
    }
    // Has a request refused with this text, perhaps when it was accepted already.
    void expect_refusal(const std::string& request, const std::string& text) {
        const bool accepted = text.starts_with("can't open");
        EXPECT_EQ(ask(request), (accepted ? ACCEPTED : "") + ext_answer('E', text));
        EXPECT_TRUE(a.wait_log("<!> " + kessctl::printable(text) + "\n"));
    }
};

TEST_F(FileTransfer, WritesUploadedFilesExactly) {
    const std::string x = path("up/x/");
    std::filesystem::create_directories(x);
    a.write_file("up/x/longer", "much longer than what comes");
    const std::string big(2500000, 'b');
    const texts items = {"$KT_HOME/up/x", "longer", "5", "493", "big",   "2500000",
                         "33152",         "empty",  "0", "420", "minus", "-7",
                         "2560",          "word",   "w", "w"};
    ext_peer peer(a, "0002R" + ext_items(items));
    EXPECT_EQ(peer.receive(73), ACCEPTED);
    peer.send("12345" + big);
    EXPECT_EQ(peer.receive(), "");
    EXPECT_EQ(content(x + "longer"), "12345");
    EXPECT_EQ(content(x + "big"), big);
    const std::pair<const char*, mode_t> permissions[] = {
        {"longer", 0755}, {"big", 0600}, {"empty", 0644}, {"minus", 05000}, {"word", 0}};
    for (const auto& [name, wanted] : permissions)
        EXPECT_EQ(permission(x + name), wanted) << name;
    EXPECT_TRUE(in_order(a, {"(i) MSGRCV : [[ EXT_REQ - SVC_FILE_UP ]] \n",
                             "(i) start (2/5) - file=|" + x + "big|, size=|2500000|\n",
                             "(i) ok    (2/5) - file=|" + x + "big|, total recv size=|2500000|\n",
                             "(i) start (4/5) - file=|" + x + "minus|, size=|-7|\n",
                             "(i) ok    (5/5) - "}));
}

TEST_F(FileTransfer, RefusesAnUploadThatCannotBe) {
    std::filesystem::create_symlink(dir, path("link"));
    const std::string too_long = dir + "/" + std::string(512, 'd');
    expect_refusal("0002R", "makedir() failed...");
    for (const std::string& directory : {"/proc/none"s, path("link"), too_long})
        expect_refusal("0002R" + ext_items({directory, "f", "1", "420"}),
                       "makedir(" + directory + ") failed...");
    expect_refusal("0002R" + ext_items({dir, "f", "1", "420", "g"}),
                   "invalid data... count=5, type=2, |" + dir + "|");
    expect_refusal("0002R" + dir + "\x1f" + ext_items(texts(30, "1")),
                   "invalid data... count=30, type=2, |" + dir + "|");
    EXPECT_EQ(ask("0002R" + dir), ACCEPTED); // no file at all

    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600) + mkfifo(path("nobody").c_str(), 0600), 0);
    const agt::unique_fd reader(open(path("fifo").c_str(), O_RDONLY | O_NONBLOCK));
    for (const std::string& name :
         {"fifo"s, "nobody"s, ""s, "no\n/x"s, std::string(256, 'n'), "none/x"s, "../../dev/null"s})
        expect_refusal("0002R" + ext_items({dir, name, "5", "420"}),
                       "can't open file |" + path(name) + "|");
}

// Peers that vanish are noticed at once, those that stall after seconds; nobody waits for them.
TEST_F(FileTransfer, EndsAnUploadWhoseBytesDoNotCome) {
    std::vector<ext_peer> peers;
    for (const std::size_t bytes : {0, 1, 1500000}) {
        const std::string name = "f" + std::to_string(bytes);
        peers.emplace_back(a, "0002R" + ext_items({dir, name, "2000000", "420"}));
        EXPECT_EQ(peers.back().receive(73), ACCEPTED);
        peers.back().send(std::string(bytes, 'x'));
        ext_peer vanishing(a, "0002R" + ext_items({dir, "v" + name, "2000000", "420"}));
        EXPECT_EQ(vanishing.receive(73), ACCEPTED);
        vanishing.send(std::string(bytes, 'x'));
        shutdown(vanishing.client.fd(), SHUT_WR);
        EXPECT_EQ(vanishing.receive(), ext_answer('E', ""));
    }
    EXPECT_EQ(a.count_log("<!> recv_tcp_data_timeout error!! |0|\n"), 3U);
    EXPECT_EQ(ask_ext(a, "0001Recho a").substr(73 + 8), "a\n");
    for (const ext_peer& stalled : peers)
        EXPECT_EQ(stalled.receive(), ext_answer('E', ""));
    EXPECT_TRUE(a.wait_log("<!> recv_tcp_data_timeout error!! |-2|\n")); // it sent nothing
    EXPECT_TRUE(a.wait_log("<!> recv_tcp_data_timeout error!! |-1|\n", 2));
    EXPECT_EQ(status(path("f1500000")).st_size, 1048576);
    EXPECT_TRUE(wait_until([&] { return children(a.pid()).empty(); }));
}

std::string announcement(const texts& files) {
    std::string body = on_wire(static_cast<std::int64_t>(files.size()));
    for (const std::string& file : files) {
        std::string name = std::filesystem::path(file).filename().string().substr(0, 127);
        name.resize(128);
        body += on_wire(status(file).st_size) + on_wire(status(file).st_mode) + name;
    }
    return ext_answer('A', body);
}

TEST_F(FileTransfer, SendsFilesExactly) {
    const texts files = {path("small"), path("empty"), path(std::string(200, 'n'))};
    a.write_file("small", "12345", 04711);
    a.write_file("empty", "");
    a.write_file(std::string(200, 'n'), std::string(1500000, 'b'), 0600);
    ext_peer peer(a, "0003R" + ext_items({"$KT_HOME/small", files[1], files[2]}));
    const std::string wanted = announcement(files) + "12345" + std::string(1500000, 'b');
    EXPECT_EQ(peer.receive(wanted.size()), wanted);
    EXPECT_EQ(children(a.pid()).size(), 1U); // waits for the acknowledgement
    peer.send("k");
    EXPECT_EQ(peer.receive(), "");
    texts lines = {"(i) MSGRCV : [[ EXT_REQ - SVC_FILE_DOWN ]] ", "(i) send file count(3)"};
    for (const std::size_t i : {0, 1, 2}) {
        const std::string number = "(i) (" + std::to_string(i) + "/3) ";
        const std::string size = std::to_string(status(files[i]).st_size);
        lines.insert(lines.end(),
                     {number + "start send file=|" + files[i] + "|\n",
                      number + "ok    send file=|" + files[i] + "|, size=|" + size + "|\n"});
    }
    EXPECT_TRUE(in_order(a, lines));
    EXPECT_TRUE(wait_until(
        [&] { return in_order(a.out(), {"read_len = 5\nread_len = 0\nread_len = 1500000\n"}); }));
}

TEST_F(FileTransfer, RefusesADownloadOfWhatIsNoRegularFile) {
    a.write_file("file", "text");
    std::filesystem::create_symlink(path("file"), path("link"));
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    a.write_file("huge", "");
    ASSERT_EQ(truncate(path("huge").c_str(), 0x100000000), 0); // more than can be announced
    for (const std::string& name :
         {path("link"), path("none"), dir, path("fifo"), "/dev/null"s, path("huge"),
          dir + "/" + std::string(512, 'p'), "$KT_UNSET/file"s, ""s})
        expect_refusal("0003R" + ext_items({path("file"), name}), "invliad file=|" + name + "|");
    expect_refusal("0003R" + ext_items(texts(31, path("file"))), // the rest stays in the last item
                   "invliad file=|" + ext_items({path("file"), path("file")}) + "|");
}

// The child hangs in its first file until the peer reads it; meanwhile the others change.
TEST_F(FileTransfer, SendsNoMoreThanItAnnounced) {
    const std::string big(16 << 20, 'b');
    a.write_file("big", big);
    const texts files = {path("big"), path("grown"), path("shrunk"), path("gone"), path("last")};
    for (const char* name : {"grown", "shrunk", "gone", "last"})
        a.write_file(name, "1234");
    const std::string announced = announcement(files);
    ext_peer peer(a, "0003R" + ext_items(files));
    EXPECT_EQ(peer.receive(announced.size()), announced);
    a.write_file("grown", "12345678");
    a.write_file("shrunk", "12");
    std::filesystem::remove(path("gone"));
    EXPECT_TRUE(peer.receive(big.size() + 6) == big + "1234" + "12");
    EXPECT_TRUE(a.wait_log("<!> fopen error.... |" + path("gone") + "|\n"));
    EXPECT_EQ(a.count_log("(1/5) ok    send file=|" + path("grown") + "|, size=|4|"), 1U);
    EXPECT_EQ(a.count_log("(2/5) ok    send file=|" + path("shrunk") + "|, size=|2|"), 1U);
    peer.send("k");
    EXPECT_EQ(peer.receive(), "");

    const std::string again = "0003R" + ext_items({path("big"), path("last")});
    for (const std::size_t bytes : {0, 1, 72, 73, 77, 213, 1 << 20}) // then the peer vanishes
        EXPECT_EQ(ext_peer(a, again).receive(bytes).size(), bytes);
    EXPECT_TRUE(wait_until([&] { return children(a.pid()).empty(); }));
    EXPECT_TRUE(a.wait_log("<!> error for send file data.... |" + path("big") + "|\n"));
    EXPECT_TRUE(a.wait_log("<!> error for send file data.... |" + path("last") + "|\n"));
}

TEST_F(FileTransfer, ConsolePutAndGet) {
    texts put = {"put"};
    texts get = {"get"};
    for (std::size_t i = 0; i < 31; ++i) { // four uploads, two downloads
        const std::string name = "f" + std::to_string(i);
        a.write_file(name, std::string(i * 100000, static_cast<char>('a' + i % 26)), 0640);
        put.push_back(path(name));
        get.push_back("${TRAN_AGT_HOME}/up/" + name);
    }
    put.push_back(path("up"));
    get.push_back(path("down"));
    EXPECT_EQ(a.console(put).err, "");
    EXPECT_NE(a.console(get).status, 0) << "there is no directory yet";
    std::filesystem::create_directory(path("down"));
    EXPECT_EQ(a.console(get).err, "");
    for (std::size_t i = 0; i < 31; ++i) {
        const std::string name = "f" + std::to_string(i);
        EXPECT_TRUE(content(path(name)) == content(path("down/" + name))) << name;
        EXPECT_EQ(permission(path("down/" + name)), 0640U);
    }
    EXPECT_EQ(a.run({"get", path("f1"), "/nowhere/x", path("down")}),
              "1\nkessctl: the agent says: invliad file=|/nowhere/x|, no file there that it may "
              "look at\n");
    EXPECT_EQ(a.run({"put", path("f1"), "/dev/null/x"}),
              "1\nkessctl: the agent says: makedir(/dev/null/x) failed...\n");
}

// A console that is stopped in the middle leaves nothing under the name, and whatever stands there
// is replaced only if it could have been written to.
TEST_F(FileTransfer, ConsolePutReplacesWholeFiles) {
    const texts odd = {"-n", "it's $HOME", "new\nline\n", "`x`\"\\"};
    texts put = {"put", "--"};
    for (const std::string& name : odd) {
        a.write_file(name, name, 0640);
        put.push_back(path(name));
    }
    put.push_back("${KT_HOME}/to/$KT_UNSET/${KT_UNSET}");
    EXPECT_EQ(a.run(put), "0\n");
    for (const std::string& name : odd)
        EXPECT_EQ(content(path("to/$KT_UNSET/${KT_UNSET}/" + name)), name);

    std::filesystem::create_directory(path("up"));
    a.write_file("up/old", "before");
    std::filesystem::create_symlink(path("up/old"), path("up/file"));
    a.write_file("file", "");
    ASSERT_EQ(truncate(path("file").c_str(), 0xffffffff), 0);
    process cut({KESSCTL_PROGRAM, "put", path("file"), path("up")}, a.variables);
    EXPECT_TRUE(a.wait_log("/up/.kessctl-"));
    kill(cut.pid(), SIGTERM);
    EXPECT_EQ(cut.wait_exit(), 128 + SIGTERM);
    EXPECT_TRUE(in_order(cut.err(), {"what has come lies in " + path("up") + " under .kessctl-"}));
    EXPECT_EQ(content(path("up/file")), "before");
    ASSERT_EQ(truncate(path("file").c_str(), 3), 0);
    EXPECT_EQ(a.run({"put", path("file"), path("up")}), "0\n");
    EXPECT_EQ(content(path("up/old")), std::string(3, '\0')); // behind the link
    EXPECT_TRUE(std::filesystem::is_symlink(path("up/file")));

    std::filesystem::create_directories(path("to/a/file"));
    std::filesystem::create_directory(path("to/b"));
    ASSERT_EQ(mkfifo(path("to/b/file").c_str(), 0600), 0);
    for (const char* to : {"to/a", "to/b"}) {
        EXPECT_EQ(a.run({"put", path("file"), path(to)}), "1\nkessctl: cannot replace file\n");
        const std::filesystem::directory_iterator left(path(to));
        EXPECT_EQ(std::distance(begin(left), end(left)), 1) << to;
    }
}

// An agent that announces one file, with this name, and sends it.
void send_one_file(int listener, const std::string& name) {
    sockaddr_in peer{};
    char request[TCP_CMD_MSG_SIZE];
    EXPECT_EQ(agt::wait_fd(listener, POLLIN, LIMIT_MS), agt::wait_result::ready);
    const agt::unique_fd sockfd(agt::accept_tcpserver_connection(listener, &peer));
    EXPECT_EQ(agt::recv_tcp_data(sockfd.get(), request, sizeof request), int{TCP_CMD_MSG_SIZE});
    std::string padded = name;
    padded.resize(128);
    const std::string answer =
        ext_answer('A', on_wire(1) + on_wire(3) + on_wire(0104755) + padded) +
        (name == "g1d" ? "" : "abc");
    const int size = static_cast<int>(answer.size());
    EXPECT_EQ(agt::send_tcp_data(sockfd.get(), answer.data(), size), size);
    if (name == "g1d") { // which it may not read: it waits for the end
        EXPECT_EQ(agt::wait_fd(sockfd.get(), POLLIN, LIMIT_MS), agt::wait_result::ready);
    }
}

TEST(ConsoleGet, WritesInItsDirectoryOnly) {
    const agent a;
    const std::string inside = a.path("in/side");
    for (const char* directory : {"/side", "/.side"}) // of the file when it is whole and before
        std::filesystem::create_directories(inside + directory);
    const agt::unique_fd listener(agt::open_tcp_server_session("127.0.0.1", a.port()));
    a.write_file("kept", "before");
    std::filesystem::create_symlink(a.path("kept"), inside + "/good");
    for (const std::string name :
         {"../up", "..", ".", "", "/tmp/x", "side/x", ".bashrc", "Xgood", "good"}) {
        std::thread fake([&] { send_one_file(listener.get(), name); });
        const std::string got =
            a.run({"get", "--port", std::to_string(a.port()), "x/g${X}d", inside});
        fake.join();
        EXPECT_EQ(got[0], name == "good" ? '0' : '2') << name << got;
    }
    std::thread fake([&] { send_one_file(listener.get(), "g1d"); });
    EXPECT_TRUE(in_order(
        a.run(
            {"get", "--port", std::to_string(a.port()), "--timeout-ms", "3600000", "g1d", inside}),
        {"2\n", "the agent announces g1d and does not send it: most likely it may not read it"}));
    fake.join();
    const std::filesystem::recursive_directory_iterator found(a.path("in"));
    EXPECT_EQ(std::distance(begin(found), end(found)), 4); // side/good
    EXPECT_EQ(content(inside + "/good"), "abc");
    EXPECT_EQ(content(a.path("kept")), "before");
    EXPECT_EQ(permission(inside + "/good"), 0755U) << "no more than the permission bits";
}

} // namespace
