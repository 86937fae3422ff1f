// TLS with certificates on both sides: who is served, who is refused and why, changed files, and
// the document that says how to set it up.
#include <poll.h>

#include "certificates.h"
#include "server/ext_client.h"

namespace {

using namespace test_support;

constexpr char REFUSED[] = "<!> TLS of a command connection failed. (ip 127.0.0.1, port ";

constexpr char ZEROS[] = "<!> magic bit mismatch.";

class Tls : public served_agent {
  protected:
    authority ca{a};

    Tls() { ca.secure(a, server, client); }
    // A command line that connects to the command port.
    std::string s_client(const std::string& with, const std::string& input = "<zeros") const {
        return "openssl s_client -connect 127.0.0.1:" + std::to_string(a.port()) +
               " -CAfile ca.crt " + with + " >s_client.out 2>&1 " + input;
    }
    static int connect_raw(int port) {
        return agt::create_tcp_client_session("127.0.0.1", port, 0);
    }
    bool is_closed(int sockfd, int limit_ms = LIMIT_MS) const {
        char byte;
        return agt::wait_fd(sockfd, POLLIN, limit_ms) == agt::wait_result::ready &&
               recv(sockfd, &byte, 1, 0) == 0;
    }
    std::string run(const std::string& command) {
        kessctl::command_client one;
        std::vector<kessctl::command_result> results;
        one.use_tls(ca.identity("operator"), "agent.example");
        if (!one.connect("127.0.0.1", a.port()) ||
            !kessctl::run_commands(one, {EXT_SVC_CMD, command, 0, 1}, LIMIT_MS, &results).ok())
            return one.error();
        return results[0].output;
    }
};

TEST_F(Tls, ServesCommandsAndReportsToTheServer) {
    a.set("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", 1);
    server.set_services(services(40));
    start();
    EXPECT_TRUE(renew()) << client.error();
    EXPECT_TRUE(a.wait_log(THREAD_END, 2));
    EXPECT_EQ(a.count_log("notify(cmd) port connect ok!"), 1u);
    EXPECT_EQ(run("head -c 300000 /dev/zero | tr '\\0' x"), std::string(300000, 'x'));
    a.write_file("out", std::string(3000000, '\x1f') + "end");
    const texts own = {"--cert",        a.path("tls/operator.crt"),
                       "--key",         a.path("tls/operator.key"),
                       "--server-name", "agent.example",
                       "--port",        std::to_string(a.port())};
    for (texts words : {texts{"put", a.path("out"), a.path("up")},
                        texts{"get", a.path("up/out"), a.path("down")}}) {
        std::filesystem::create_directories(a.path("down"));
        words.insert(words.begin() + 1, own.begin(), own.end());
        EXPECT_EQ(a.console(words).status, 0) << a.run(words);
    }
    EXPECT_TRUE(content(a.path("out")) == content(a.path("down/out")));
    EXPECT_EQ(a.count_log(REFUSED), 0u);
    expect_end();
}

TEST_F(Tls, WarnsOnceOfACertificateThatEndsSoon) {
    ca.issue("agent", "DNS:agent.example", "", "-days 5");
    start();
    constexpr char WARNING[] = "<!> TLS : the certificate expires soon. (";
    EXPECT_TRUE(a.wait_log(WARNING));
    EXPECT_TRUE(in_order(a.console({"status"}).out, {"TLS certificate valid for 4 days, until "}));
    EXPECT_TRUE(in_order(a.console({"metrics"}).out, {"\nkessard_certificate_valid_days 4\n"}));
    agt::sleep_ms(2500); // it is looked at every second
    EXPECT_EQ(a.count_log(WARNING), 1u);
}

TEST_F(Tls, RefusesPeersWithNothingButAnAlert) {
    ca.issue("other", "DNS:other.example");
    ca.issue("common", "", ""); // its common name counts
    ca.issue("both", "DNS:other.example", "-subj /CN=operator.example");
    ca.issue("server_only", "DNS:operator.example", "-addext extendedKeyUsage=serverAuth");
    ca.issue("expired", "DNS:operator.example", "", "-days -1");
    const authority foreign(a, "foreign");
    foreign.issue("stranger", "DNS:operator.example");
    a.set("TLS", "PEER_NAMES", "operator.example,common");
    start();
    client.close();
    ca.shell("head -c 1407 /dev/zero >zeros");
    const auto shows = [](const std::string& name, const std::string& more = "") {
        return "-cert " + name + ".crt -key " + name + ".key " + more;
    };
    const struct {
        std::string line;
        std::string reason; // of the refusal, or what the log says of a frame of zeros
    } peers[] = {
        {s_client(shows("operator")), ZEROS},
        {s_client(shows("common", "-tls1_2")), ZEROS},
        {s_client(""), "no certificate"},
        {s_client("-tls1_2"), "no certificate"},
        {s_client(shows("other")), "no accepted name, certificate of other.example"},
        {s_client(shows("both", "-tls1_2")), "no accepted name, certificate of other.example"},
        {s_client(shows("server_only")), "unsuitable certificate purpose"},
        {s_client(shows("expired")), "certificate has expired"},
        {s_client(shows("stranger")), "unable to get local issuer certificate"},
        {s_client(shows("operator", "-tls1_1 -cipher ALL@SECLEVEL=0")), "unsupported protocol"},
        {s_client(shows("operator", "-tls1_2 -cipher AES128-SHA")), "no shared cipher"},
        {"curl -s http://127.0.0.1:" + std::to_string(a.port()), "no TLS"},
        {"printf '\\220\\205\\040\\2037' >/dev/tcp/127.0.0.1/" + std::to_string(a.port()),
         "no TLS"}};
    for (const auto& [line, reason] : peers) {
        a.mark_log();
        ca.shell("bash -c \"" + line + "\" || true");
        EXPECT_TRUE(a.wait_log(reason)) << line << a.log();
        EXPECT_EQ(a.count_log(REFUSED), reason == ZEROS ? 0u : 1u) << line;
    }
    client.use_tls(ca.identity("other"), "agent.example");
    EXPECT_FALSE(client.connect("127.0.0.1", a.port()) && renew());
    EXPECT_NE(client.error().find("TLS: sslv3 alert bad certificate"), std::string::npos);
    client.use_tls(ca.identity("operator"), "agent.example");
    reconnect();
    EXPECT_TRUE(renew());
}

TEST_F(Tls, DoesNotStartWithFilesThatCannotBeUsed) {
    ca.issue("expired", "", "", "-days -1");
    authority(a, "foreign").issue("stranger");
    ca.shell("cp agent.key open.key; chmod 644 open.key; mkfifo fifo; : >empty");
    const struct {
        const char *key, *value, *line;
    } slips[] = {{"KEY_FILE", "tls/open.key", "open.key: others than its owner and group may"},
                 {"KEY_FILE", "tls/server.key", "server.key: key values mismatch"},
                 {"KEY_FILE", "tls/fifo", "fifo: not a regular file"},
                 {"CERT_FILE", "tls/none", "none: No such file or directory"},
                 {"CERT_FILE", "tls/empty", "empty: no start line"},
                 {"CA_FILE", "tls/foreign.crt", "agent.crt: unable to get local issuer"},
                 {"CA_FILE", "tls/agent.key", "agent.key: no start line"}};
    const auto refuses = [&](const std::string& line) {
        a.mark_log();
        a.start();
        EXPECT_EQ(a.wait_exit(), 1) << line;
        EXPECT_EQ(a.count_log(line), 1u) << line << a.log();
    };
    for (const auto& [key, value, line] : slips) {
        const std::string good = a.value("TLS", key);
        a.set("TLS", key, value);
        refuses(line);
        a.set("TLS", key, good);
    }
    a.set("TLS", "CERT_FILE", "tls/expired.crt");
    a.set("TLS", "KEY_FILE", "tls/expired.key");
    refuses("expired.crt: certificate has expired");
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they look elsewhere first
    a.write_file("tls/kessard_tls.so", "");
    a.variables["LD_LIBRARY_PATH"] = a.path("tls");
    refuses("kessard_tls.so: file too short");
#endif
}

TEST_F(Tls, LocksOutWhoIsRevoked) {
    start();
    EXPECT_TRUE(renew());
    ca.shell(
        "printf '[ca]\\ndefault_ca=d\\n[d]\\ndatabase=index\\n' >ca.cnf; : >index\n"
        "openssl() { command openssl ca -config ca.cnf -md sha256 -cert ca.crt -keyfile ca.key "
        "\"$@\"; }; openssl -revoke operator.crt; openssl -gencrl -crldays 1 >>ca.crt");
    EXPECT_TRUE(wait_until([&] { return !client.connect("127.0.0.1", a.port()) || !renew(); }));
    EXPECT_TRUE(a.wait_log("certificate revoked, certificate of operator.example"));
}

TEST_F(Tls, LetsNoServerPassThatItDoesNotKnow) {
    ca.issue("other", "DNS:other.example");
    authority(a, "foreign").issue("stranger", "IP:127.0.0.1");
    server.stop();
    const auto s_server = [&](const std::string& of, const std::string& more) {
        return texts{"/bin/sh", "-c",
                     "cd " + a.path("tls") + "; sleep 60 | openssl s_server -quiet -accept " +
                         std::to_string(a.server_port()) + " -cert " + of + ".crt -key " + of +
                         ".key -verify_return_error -Verify 1 -CAfile " + more};
    };
    std::optional<process> one;
    const auto serve = [&](const std::string& of, const std::string& more) {
        one.reset();
        one.emplace(s_server(of, more), environment{});
        EXPECT_TRUE(
            wait_until([&] { return agt::unique_fd(connect_raw(a.server_port())).valid(); }));
    };
    serve("server", "ca.crt");
    a.start();
    EXPECT_TRUE(wait_until([&] { return one->out().find("\x90\x85 \x83") != std::string::npos; }));
    EXPECT_EQ(a.stop(), 0);
    serve("server", "foreign.crt");
    start_running(a);
    EXPECT_TRUE(a.wait_log("unknown ca"));
    EXPECT_EQ(a.stop(), 0);
    one.reset();
    a.set("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", 1);
    start_running(a);
    for (const auto& [of, more, reason] :
         {std::tuple{"other", "ca.crt", "no accepted name, certificate of other.example"},
          {"stranger", "ca.crt", "unable to get local issuer certificate"},
          {"server", "ca.crt -tls1_1 -cipher ALL@SECLEVEL=0", "protocol version"}}) {
        serve(of, more);
        EXPECT_TRUE(a.wait_log(reason)) << reason;
    }
}

TEST_F(Tls, KeepsNobodyWaitingForAHandshake) {
    start();
    std::vector<agt::unique_fd> idle;
    for (int i = 0; i < 6; ++i)
        idle.emplace_back(connect_raw(a.port()));
    EXPECT_TRUE(is_closed(idle[0].get(), 3000)); // gave way
    EXPECT_TRUE(a.wait_log("gave way to a newcomer"));
    std::vector<kessctl::command_client> clients(4);
    for (kessctl::command_client& one : clients) {
        one.use_tls(ca.identity("operator"), "agent.example");
        EXPECT_TRUE(one.connect("127.0.0.1", a.port()) &&
                    one.request(kessctl::start_frame('7'), &answer))
            << one.error();
    }
    EXPECT_TRUE(renew()); // the fifth place
    EXPECT_TRUE(is_closed(idle[5].get()));
    EXPECT_EQ(a.count_log("no end of the handshake within 10 s"), 4u);
    const agt::unique_fd last(connect_raw(a.port()));
    server.stop();
    const agt::unique_fd silent(agt::open_tcp_server_session("127.0.0.1", a.server_port()));
    EXPECT_TRUE(renew());
    EXPECT_EQ(agt::wait_fd(silent.get(), POLLIN, LIMIT_MS), agt::wait_result::ready);
    expect_end(); // during handshakes of both kinds
}

TEST_F(Tls, ServesWhatOneRecordHoldsAndNoHalfOne) {
    start();
    const std::string frame = bytes_of(kessctl::start_frame('7'));
    const std::string three = frame + frame + frame;
    ASSERT_TRUE(client.send_bytes(three.data(), three.size() - 7));
    EXPECT_TRUE(client.receive(&answer, 700) && client.receive(&answer, 700));
    EXPECT_TRUE(client.send_bytes(three.data(), 7) && client.receive(&answer));
    EXPECT_EQ(::send(client.fd(), "\x17\x03\x03\x01\x00half", 9, 0), 9);
    EXPECT_TRUE(client.wait_closed(5000)) << client.error();
    ca.shell("(cat /dev/null; sleep 1; echo R; sleep 1) | " +
             s_client("-cert operator.crt -key operator.key -tls1_2", "") + " || true");
    EXPECT_NE(content(a.path("tls/s_client.out")).find("RENEGOTIATING"), std::string::npos);
    ca.shell("(sleep 1; echo k; sleep 1; head -c 1407 /dev/zero) | " +
             s_client("-cert operator.crt -key operator.key", ""));
    EXPECT_TRUE(a.wait_log("<!> magic bit mismatch")); // behind a key update
    reconnect();
    EXPECT_TRUE(renew());
}

TEST_F(Tls, TakesChangedFilesUnderLoad) {
    start();
    std::atomic<int> served{0};
    std::atomic<bool> go_on{true};
    const auto identity = ca.identity("operator");
    std::thread load([&] {
        while (go_on) {
            kessctl::command_client one;
            TCP_CMD_MSG unused;
            one.use_tls(identity, "agent.example");
            EXPECT_TRUE(one.connect("127.0.0.1", a.port()) &&
                        one.request(kessctl::start_frame('7'), &unused))
                << one.error();
            ++served;
        }
    });
    for (int n = 1; n <= 3; ++n) {
        ca.shell("cp agent.key old.key; echo broken >agent.key.new; mv agent.key.new agent.key");
        EXPECT_TRUE(a.wait_log("changed files cannot be used, the old ones are kept.", n));
        ca.shell("mv old.key agent.key");
        ca.issue("next", "DNS:agent.example");
        const int before = served;
        ca.shell("mv next.key agent.key; mv next.crt agent.crt");
        EXPECT_TRUE(wait_until([&] { return served >= before + 20; }));
    }
    go_on = false;
    load.join();
    EXPECT_TRUE(a.wait_log("(I) TLS : changed files taken, certificate valid until ", 3));
    EXPECT_TRUE(renew()); // the connection from before
}

TEST_F(Tls, LeavesNothingOfAThousandConnectionsAndServesChildrenBesideThem) {
    start();
    std::atomic<int> failed{0};
    const auto identity = ca.identity("operator");
    const auto connect = [&](int times) {
        for (int i = 0; i < times; ++i) {
            kessctl::command_client one;
            one.use_tls(identity, "agent.example");
            failed += one.connect("127.0.0.1", a.port()) ? 0 : 1;
        }
    };
    connect(50);
    const auto resident = [&] { return std::stol(status_of(a.pid(), "VmRSS")); };
    [[maybe_unused]] const long kilobytes = resident();
    const std::size_t files = open_files(a.pid()).size();
    std::thread beside(connect, 950);
    for (int i = 0; i < 200; ++i)
        failed += run("echo") == "\n" ? 0 : 1;
    beside.join();
    EXPECT_EQ(failed, 0);
#if !defined(__SANITIZE_ADDRESS__) // which keeps what was freed
    EXPECT_LT(resident(), kilobytes + 2000);
#endif
    EXPECT_TRUE(wait_until([&] { return open_files(a.pid()).size() <= files; }));
    EXPECT_TRUE(wait_until([&] { return children(a.pid()).empty(); }));
    EXPECT_TRUE(renew());
    expect_end();
}

// Runs the commands of a part of the document.
void follow(const agent& a, const std::string& heading) {
    const std::string text = content(SOURCE_TREE "docs/tls.md");
    const std::size_t at = text.find("## " + heading);
    std::istringstream part(text.substr(at, text.find("\n## ", at) - at));
    std::string commands =
        "cd " + a.path("ca") +
        "; PATH=" + std::filesystem::path(KESSCTL_PROGRAM).parent_path().string() + ":$PATH\n";
    for (std::string line; std::getline(part, line);)
        if (line.starts_with("    ") && !line.starts_with("    (I)"))
            commands += line.substr(4) + "\n";
    const program_result ran = run_program({"/bin/sh", "-euc", commands}, a.variables);
    EXPECT_EQ(ran.status, 0) << commands << ran.out << ran.err;
}

TEST_F(Tls, IsSetUpAsTheDocumentSays) {
    a.unset("TLS", "PEER_NAMES");
    std::filesystem::create_directories(a.path("ca"));
    follow(a, "Make the certificates");
    std::filesystem::remove(a.cfg_file());
    follow(a, "Set up the agent");
    std::istringstream section(content(a.cfg_file()));
    for (std::string key, equals, value; section >> key;)
        if (key != "[TLS]" && section >> equals >> value)
            a.set("TLS", key, value);
    const auto identity = std::make_shared<agt::tls_identity>();
    const std::string own = a.path("ca/server.example");
    ASSERT_EQ(identity->open({own + ".crt", own + ".key", a.path("ca/ca.crt")}), "");
    server.stop();
    server.use_tls(identity);
    EXPECT_EQ(server.start("127.0.0.1", a.server_port()), "");
    start_running(a);
    EXPECT_TRUE(a.wait_log(THREAD_END) && server.wait_for(MSG_DEVICE_INFO_REQ));
    follow(a, "Command it");
    EXPECT_TRUE(a.wait_log("(i) MSGRCV : [[ RENEW_SERVICE_LIST_REQ ]]"));
    follow(a, "Rotate");
    follow(a, "Command it");
    EXPECT_TRUE(a.wait_log("(I) TLS : changed files taken"));
}

} // namespace
