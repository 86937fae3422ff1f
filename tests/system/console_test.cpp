// The commands of the console that change and show an agent, and the stand-in server as a program.
#include <nlohmann/json.hpp>

#include "checks.h"

namespace {

using namespace test_support;
using nlohmann::json;

class ConsoleCommands : public testing::Test {
  protected:
    agent a;
    std::optional<process> server;

    void serve(const std::string& services) {
        a.write_file("services", services);
        const std::string port = std::to_string(a.server_port());
        const texts words = {
            KESSCTL_PROGRAM,    "serve",      "--port",           port,          "--services",
            a.path("services"), "--json-log", a.path("messages"), "--port-file", a.path("port")};
        server.emplace(words, environment());
        ASSERT_TRUE(wait_until([&] { return content(a.path("port")) != ""; })) << server->err();
    }
    // Runs a command, which must end with `status` and write the texts in this order.
    void expect(const texts& words, texts wanted, int status = 0) const {
        wanted.insert(wanted.begin(), std::to_string(status) + "\n");
        const std::string shown = a.run(words);
        EXPECT_TRUE(shown.starts_with(wanted[0]) && in_order(shown, wanted)) << shown;
    }
    // The messages of a kind that the server has logged, as JSON.
    std::vector<json> messages_of(const std::string& kind) const {
        std::vector<json> found;
        std::ifstream file(a.path("messages"));
        for (std::string line; std::getline(file, line);) {
            const json message = json::parse(line, nullptr, false);
            if (message.value("message", "") == kind)
                found.push_back(message);
        }
        return found;
    }
};

TEST_F(ConsoleCommands, ChangeAndShowAnAgentBehindItsServer) {
    serve("FIRST limit=7 flags=SE # the one\n\nSECOND host=box depth=3 call_limit=4 dbio_limit=5 "
          "sql_limit=6 tflag=1\n");
    start_running(a);
    EXPECT_TRUE(in_order(a, {"thread function END"}));
    expect({"show", "services"}, {"2 services, 2 slots used, 9998 free", "FIRST", "7", "SE",
                                  "SECOND", "box", "3", "4", "5", "6", "1\n"});
    expect({"set-config", "--log-flags", "SQ", "--log-qcnt", "8", "--log-onoff", "1", "--sfilter",
            "1", "--call-trc-depth", "12", "--call-trc-limit", "34", "--dbio-trc-limit", "56",
            "--sql-trc-limit", "78"},
           {"<- SET_SYS_CONFIG_SET_RSP", "result_code : 0"});
    expect({"show", "settings"}, {": 8\n", "0xAAAAAAAA (on)", ": SQ\n", ": 12\n", ": 34\n",
                                  ": 56\n", ": 78\n", "svc_filtering   : 1", "0000  08"});
    expect({"set-resource", "--cpu-sec", "30", "--cpu-pcnt", "90", "--fs-pcnt", "80", "--fs", "/",
            "/home"},
           {"<- SET_SYS_RESOURCE_SET_RSP", "result_code : 0"});
    expect({"show", "registry"},
           {"host ", "CPU alert at 90 % over 30 s", "2 file systems", "/: alert at 80 %, 0 raised",
            "/home: alert at 80 %", "0 processes"});
    expect({"services", "add", "THIRD", "limit=9", "FIRST", "limit=8"}, {"2 services sent"});
    expect({"services", "update", "SECOND", "limit=10"}, {"1 services sent"});
    expect({"services", "delete", "NOWHERE", "FIRST"}, {"2 services sent"});
    expect({"show", "services"}, {"2 services, 2 slots", "SECOND", " 10 "});
    expect({"show", "services"}, {"2 services, 2 slots", "THIRD", " 9 "});
    expect({"put-notification", "--service", "SECOND"}, {});
    expect({"show", "queues", "--records", "1"}, {"noti_send_que: front ", ", rear 1, ", "SECOND"});
}

TEST_F(ConsoleCommands, ServeLogsEveryMessageAndReadsItsServicesAgain) {
    serve("FIRST limit=7\n");
    start_running(a);
    EXPECT_TRUE(wait_until([&] { return messages_of("GET_SERVICE_LIST_RSP").size() == 1; }));
    const json list = messages_of("GET_SERVICE_LIST_RSP").at(0);
    EXPECT_EQ(list["direction"], "sent");
    EXPECT_EQ(list["fields"]["elements"][0]["service_id"], "FIRST");
    EXPECT_TRUE(wait_until([&] { return messages_of("DEVICE_INFO_REQ").size() == 1; }));
    a.write_file("services", "FIRST limit=7\nNEW limit=x\n");
    kill(server->pid(), SIGHUP);
    EXPECT_TRUE(wait_until([&] { return in_order(server->err(), {"services:2: "}); }));
    a.write_file("services", "FIRST limit=7\nNEW\n");
    kill(server->pid(), SIGHUP);
    EXPECT_TRUE(wait_until([&] { return in_order(server->out(), {" 2 services from "}); }));
    expect({"renew"}, {"RENEW_SERVICE_LIST_RSP"});
    EXPECT_TRUE(wait_until([&] { return in_order(a.run({"show", "services"}), {"NEW"}); }));
    kill(server->pid(), SIGTERM);
    EXPECT_EQ(server->wait_exit(), 0);
    EXPECT_TRUE(in_order(server->out(),
                         {"listening on 127.0.0.1 port ", "-> ", "GET_SERVICE_LIST_REQ", "<- "}));
}

TEST_F(ConsoleCommands, SayWhatIsWrong) {
    const std::pair<texts, std::string> cases[] = {
        {{"services", "add", "X", "limit=many"}, "limit"},
        {{"services", "add", std::string(17, 'x')}, "is longer than 16 characters"},
        {{"services", "add", "limit=3"}, "a service starts with its id"},
        {{"set-resource", "--cpu-sec", "1", "--cpu-pcnt", "1", "--fs-pcnt", "1", "--fs", "a", "b",
          "c", "d", "e", "f"},
         "at most 5 file systems"},
        {{"show", "settings", "--cfg", "/nowhere"}, "/nowhere"},
        {{"show", "services"}, "SVC_HASH_TBL_SHMKEY"},
        {{"renew"}, "127.0.0.1"},
        {{"serve", "--services", "/nowhere"}, "/nowhere: No such file or directory"},
    };
    a.write_cfg();
    for (const auto& [words, wanted] : cases)
        expect(words, {wanted}, 2);
}

} // namespace
