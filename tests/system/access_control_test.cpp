// Who may command the agent, and what a service manager is told, through the real program.
#include <sys/un.h>

#include "checks.h"

namespace {

using namespace test_support;

TEST(AccessControl, AdmitsListedAddressesAndRefusesRemoteCommands) {
    constexpr char COMMAND[] = "<!> remote command refused. (ip 127.0.0.1, port ";
    constexpr char CONNECTION[] = "<!> command connection refused. (ip 127.0.0.1, port ";
    const std::tuple<const char*, const char*, const char*> cases[] = {
        // null: absent, or no line
        {nullptr, "Y", nullptr},
        {"192.0.2.1,127.0.0.1", nullptr, nullptr},
        {"192.0.2.1, 127.1.2.3/8", nullptr, nullptr},
        {"0.0.0.0/0", "N", COMMAND},
        {"127.0.0.2,126.0.0.0/8", "Y", CONNECTION},
        {"128.0.0.0/1", nullptr, CONNECTION}};
    for (const auto& [addresses, remote, line] : cases) {
        SCOPED_TRACE(addresses == nullptr ? "everybody" : addresses);
        agent a;
        if (addresses != nullptr)
            a.set("TRAN_AGENT", "ALLOWED_ADDRESSES", addresses);
        if (remote != nullptr)
            a.set("TRAN_AGENT", "REMOTE_COMMANDS_YN", remote);
        start_running(a);
        EXPECT_EQ(a.console({"exec", "true"}).status == 0, line == nullptr);
        EXPECT_EQ(a.console({"renew"}).status == 0, line != CONNECTION);
        EXPECT_TRUE(line == nullptr || a.wait_log(line));
        EXPECT_EQ(a.count_log("refused. (ip"), line == nullptr ? 0 : line == COMMAND ? 1 : 2);
        EXPECT_EQ(a.err(), "");
    }
}

TEST(AccessControl, DoesNotStartWithWhatItCannotUnderstand) {
    const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
        {"TRAN_AGENT", "ALLOWED_ADDRESSES", "",
         "<!> TRAN_AGENT ALLOWED_ADDRESSES : names no address"},
        {"TRAN_AGENT", "ALLOWED_ADDRESSES", "127.0.0.1,server",
         "ALLOWED_ADDRESSES : not an address or block of addresses (server)"},
        {"TRAN_AGENT", "ALLOWED_ADDRESSES", "127.0.0.1/33", "ALLOWED_ADDRESSES : not an address"},
        {"TRAN_AGENT", "ALLOWED_ADDRESSES", "127.0.0.1/", "ALLOWED_ADDRESSES : not an address"},
        {"TRAN_AGENT", "REMOTE_COMMANDS_YN", "no",
         "<!> TRAN_AGENT REMOTE_COMMANDS_YN : neither Y nor N (no)"},
        {"SERVICE_HASH", "DAILY_UPDATE_YN", "y",
         "<!> SERVICE_HASH DAILY_UPDATE_YN : neither Y nor N (y)"}};
    for (const auto& [section, keyword, value, line] : cases) {
        agent a;
        a.set(section, keyword, value);
        a.start();
        EXPECT_EQ(a.wait_exit(), 1);
        EXPECT_EQ(a.count_log(line), 1u) << line;
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
