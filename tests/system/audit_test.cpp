// What the daemon tells the system log.
#include <sys/un.h>

#include "faulty_agent.h"
#include "kessard/state_file.h"

namespace {

using namespace test_support;

// The system log that the daemon is led to.
class system_log {
  public:
    explicit system_log(const std::string& path) {
        std::strcpy(address_.sun_path, path.c_str());
        unlink(path.c_str());
        EXPECT_EQ(bind(fd_.get(), reinterpret_cast<const sockaddr*>(&address_), sizeof address_),
                  0);
    }
    void fill() const {
        while (sendto(fd_.get(), "", 1, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&address_),
                      sizeof address_) == 1)
            continue;
    }
    // Whether a line with all of the pieces in their order comes.
    bool has(const texts& pieces) {
        char line[1024];
        return wait_until([&] {
            for (ssize_t got = 0; (got = recv(fd_.get(), line, sizeof line, MSG_DONTWAIT)) >= 0;)
                lines.emplace_back(line, static_cast<std::size_t>(got));
            return std::ranges::any_of(lines,
                                       [&](const auto& one) { return in_order(one, pieces); });
        });
    }
    texts lines;

  private:
    sockaddr_un address_{AF_UNIX, ""};
    agt::unique_fd fd_{socket(AF_UNIX, SOCK_DGRAM, 0)};
};

using Audit = faulty_agent;
TEST_F(Audit, NamesEveryActAndWaitsForNobody) {
    const std::string path = a.path("log-socket");
    std::strcpy(table->system_log, path.c_str());
    a.set("TRAN_AGENT", "AUDIT_YN", "Y");
    a.set("COMMON", "STATE_FILE", "state");
    a.set("TRAN_AGENT", "ALLOWED_ADDRESSES", "127.0.0.1");
    std::optional<system_log> log(path);
    start_running(a);
    EXPECT_EQ(a.count_log("(i) policy : ALLOWED_ADDRESSES 127.0.0.1, REMOTE_COMMANDS_YN absent, Y, "
                          "AUDIT_YN Y, no TLS"),
              1u);
    const std::string from = "peer=127.0.0.1:";
    const std::string daemon = ">kessard[" + std::to_string(a.pid()) + "]: ";
    a.write_file("sent", "12345", 0640);
    const std::pair<texts, std::vector<texts>> acts[] = {
        {{"set-config", "--log-qcnt", "16"},
         {{"<86" + daemon + "accepted " + from, " name=-"},
          {"<85" + daemon + "command " + from, "type=SET_SYS_CONFIG_SET_REQ result=0",
           "=8->16 magic="},
          {"<86" + daemon + "ended " + from, " name=- reason=closed by the peer"}}},
        {{"exec", "--raw", "echo hi \x01; exit 3", "true #" + std::string(600, 'x')},
         {{"<85" + daemon + "request " + from, "code=0001 data=echo hi \\x01; exit 3\\x1ftrue #x"},
          {"<85>kessard[", "remote-command " + from, "exit=3 seconds=0.",
           " bytes=5 text=echo hi \\x01"},
          {"<86>kessard[", "ended " + from, "reason=request served"}}},
        {{"put", a.path("sent"), a.path("up")},
         {{"upload " + from, "result=ok size=5 mode=0640 path=" + a.path("up/.kessctl-")},
          {"remote-command " + from, "text=echo;set -- 'sent' .kessctl-"}}},
        {{"get", a.path("sent"), a.path("up")},
         {{"download " + from, "result=ok size=5 mode=0640 path=" + a.path("sent")}}}};
    for (const auto& [words, lines] : acts) {
        a.run(words);
        for (const texts& line : lines)
            EXPECT_TRUE(log->has(line)) << line.back();
    }
    for (const std::string& line : log->lines)
        EXPECT_LE(line.size() - line.find("]: ") - 3, 500u);
    log->fill();
    EXPECT_EQ(a.run({"exec", "echo on"})[0], '0');
    log.reset();
    EXPECT_EQ(a.run({"exec", "echo on"})[0], '0');
    EXPECT_TRUE(wait_until([&] { // two lines of the daemon and two of its child, each time
        const std::string bytes = content(a.path("state"));
        KESSARD_STATE state{};
        std::memcpy(&state, bytes.data(), std::min(bytes.size(), sizeof state));
        return state.audit_lines_lost == 8;
    }));
    log.emplace(path);
    EXPECT_EQ(a.run({"renew"})[0], '0');
    EXPECT_TRUE(log->has({"type=RENEW_SERVICE_LIST_REQ result=0"}));
    EXPECT_EQ(a.count_log("remote-command"), 0u);
}

} // namespace
