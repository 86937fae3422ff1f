// Who may command the agent, and what a service manager is told, through the real program.
#include <sys/un.h>

#include "checks.h"

namespace {

using namespace test_support;

// Whether a shell command reaches the host, and whether a settings request is answered.
std::pair<bool, bool> served(const agent& a) {
    return {a.console({"exec", "true"}).status == 0, a.console({"renew"}).status == 0};
}

TEST(AccessControl, AdmitsListedAddressesAndRefusesRemoteCommands) {
    const struct {
        const char* addresses; // null: absent
        const char* remote;
        std::pair<bool, bool> served;
        const char* line;
    } cases[] = {
        {nullptr, "Y", {true, true}, nullptr},
        {"192.0.2.1,127.0.0.1", nullptr, {true, true}, nullptr},
        {"192.0.2.1, 127.1.2.3/8", nullptr, {true, true}, nullptr},
        {"0.0.0.0/0", "N", {false, true}, "<!> remote command refused. (ip 127.0.0.1, port "},
        {"127.0.0.2,126.0.0.0/8",
         "Y",
         {false, false},
         "<!> command connection refused. (ip 127.0.0.1, port "},
        {"128.0.0.0/1",
         nullptr,
         {false, false},
         "<!> command connection refused. (ip 127.0.0.1, port "},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.addresses == nullptr ? "everybody" : one.addresses);
        agent a;
        if (one.addresses != nullptr)
            a.set("TRAN_AGENT", "ALLOWED_ADDRESSES", one.addresses);
        if (one.remote != nullptr)
            a.set("TRAN_AGENT", "REMOTE_COMMANDS_YN", one.remote);
        start_running(a);
        EXPECT_EQ(served(a), one.served);
        EXPECT_TRUE(one.line == nullptr || a.wait_log(one.line));
        EXPECT_EQ(a.count_log("refused. (ip"), !one.served.first + !one.served.second);
        EXPECT_EQ(a.err(), "");
    }
}

TEST(AccessControl, DoesNotStartWithWhatItCannotUnderstand) {
    const struct {
        const char* keyword;
        const char* value;
        const char* line;
    } cases[] = {
        {"ALLOWED_ADDRESSES", "", "<!> TRAN_AGENT ALLOWED_ADDRESSES : names no address"},
        {"ALLOWED_ADDRESSES", "127.0.0.1,server",
         "ALLOWED_ADDRESSES : not an address or block of addresses (server)"},
        {"ALLOWED_ADDRESSES", "127.0.0.1/33", "ALLOWED_ADDRESSES : not an address"},
        {"ALLOWED_ADDRESSES", "127.0.0.1/", "ALLOWED_ADDRESSES : not an address"},
        {"REMOTE_COMMANDS_YN", "no", "<!> TRAN_AGENT REMOTE_COMMANDS_YN : neither Y nor N (no)"},
    };
    for (const auto& one : cases) {
        agent a;
        a.set("TRAN_AGENT", one.keyword, one.value);
        a.start();
        EXPECT_EQ(a.wait_exit(), 1);
        EXPECT_EQ(a.count_log(one.line), 1u) << one.line;
    }
}

TEST(ServiceManager, HearsOfTheMainLoopAndOfTheEnd) {
    agent a;
    sockaddr_un address{AF_UNIX, ""};
    std::strcpy(address.sun_path, a.path("notify").c_str());
    const agt::unique_fd sockfd(socket(AF_UNIX, SOCK_DGRAM, 0));
    ASSERT_EQ(bind(sockfd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const timeval limit{LIMIT_MS / 1000, 0};
    setsockopt(sockfd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    a.variables["NOTIFY_SOCKET"] = address.sun_path;
    a.start();
    const auto receive = [&] {
        char text[64];
        const ssize_t length = recv(sockfd.get(), text, sizeof text, 0);
        return std::string(text, length > 0 ? static_cast<std::size_t>(length) : 0);
    };
    EXPECT_EQ(receive(), "READY=1");
    EXPECT_EQ(a.count_log("[ kessard ] start... running : 1"), 1u);
    a.signal(SIGTERM);
    EXPECT_EQ(receive(), "STOPPING=1");
    EXPECT_EQ(a.wait_exit(), 0);
}

} // namespace
