// The commands of the console that change and show an agent, and the stand-in server as a program.
#include <nlohmann/json.hpp>

#include <regex>

#include "checks.h"
#include "server/command_client.h"

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
    expect({"services", "update", "SECOND", "limit=10"}, {"1 service sent"});
    expect({"services", "delete", "NOWHERE", "FIRST"},
           {"1 service sent", "no such service: NOWHERE"}, 1);
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
    expect({"services", "add", "LATER"}, {"1 service sent"}); // waits for the list
    expect({"show", "services"}, {"3 services", "FIRST", "NEW", "LATER"});
    kill(server->pid(), SIGTERM);
    EXPECT_EQ(server->wait_exit(), 0);
    EXPECT_TRUE(in_order(server->out(),
                         {"listening on 127.0.0.1 port ", "-> ", "GET_SERVICE_LIST_REQ", "<- "}));
}

// Every view and answer that is to be JSON is JSON, and has what the text has.
TEST_F(ConsoleCommands, AnswerInJson) {
    a.set("TRAN_AGENT", "IP_ADDRESS", "127.0.0.2"); // where the console connects then
    start_running(a);
    const auto answer = [&](const texts& words) {
        return json::parse(a.console(words).out, nullptr, false);
    };
    EXPECT_EQ(answer({"renew", "--json"}), json({{"result_code", "0"}}));
    EXPECT_TRUE(in_order(a, {"thread function END"}));
    EXPECT_EQ(answer({"services", "add", "ONE", "limit=7", "--json"}),
              json({{"sent", 1}, {"missing", json::array()}}));
    EXPECT_EQ(answer({"services", "delete", "NONE", "--json"}),
              json({{"sent", 0}, {"missing", {"NONE"}}}));
    EXPECT_EQ(answer({"show", "services", "--json"})[0]["limit_sec"], 7);
    EXPECT_EQ(answer({"show", "settings", "--json"})["svc_filtering"], "0");
    EXPECT_EQ(answer({"show", "registry", "--json"})["file_systems"], json::array());
    a.run({"put-notification", "--service", "ONE"});
    EXPECT_EQ(answer({"show", "queues", "--json"})[0]["records"][0]["fields"]["service_id"], "ONE");
    const json ran = answer({"exec", "--json", "printf '\\377'; exit 3", "kill -9 $$"});
    EXPECT_EQ(ran[0]["exit_status"], 3);
    EXPECT_EQ(ran[0]["output"], "\uFFFD");
    EXPECT_EQ(ran[1]["exit_status"], nullptr);
    EXPECT_TRUE(answer({"doctor", "--json"})["findings"].is_array());
    a.variables["TRAN_AGT_CFG_FILE"] = "/dev/null";
    const texts there = {"--host", "127.0.0.2", "--port", std::to_string(a.port())};
    texts afar = {"services", "delete", "--json", "NONE"};
    afar.insert(afar.end(), there.begin(), there.end());
    EXPECT_EQ(answer(afar), json({{"sent", 1}, {"missing", nullptr}}));
}

// Runs a line of bash in which $k is the console; its status, output and errors.
std::string bash(const agent& a, const std::string& line) {
    const program_result ran =
        run_program({"/bin/bash", "-c", "k=" KESSCTL_PROGRAM "; " + line}, a.variables);
    return std::to_string(ran.status) + "\n" + ran.out + ran.err;
}

TEST_F(ConsoleCommands, NoticeOutputThatIsLostAndFitATerminal) {
    start_running(a);
    const std::string lost = "2\nkessctl: standard output cannot be written";
    for (const std::string command : {"metrics", "show settings", "exec 'echo a'", "--help"})
        for (const std::string to : {" >/dev/full", " >&-"})
            EXPECT_TRUE(bash(a, "$k " + command + to).starts_with(lost)) << command << to;
    EXPECT_EQ(bash(a, "exec 3> >(:); wait $!; $k --help >&3; echo $?"), "0\n141\n");
    a.run({"services", "add", "LONGEST_SERVICE1", "host=LONGEST_HOST_123", "server=LONGEST_SERVER1",
           "limit=99999", "depth=999", "call_limit=99999", "dbio_limit=99999", "sql_limit=99999",
           "flags=SEVBCIXQ"});
    a.write_file("a_file_with_a_name_of_more_than_twenty_four_letters", "1");
    a.write_file("empty", "");
    const std::pair<std::string, std::string> commands[] = {
        {"show services", "LONGEST_SERVER1"},
        {"put " + a.path("a_file_with_a_name_of_more_than_twenty_four_letters") + " " +
             a.path("up"),
         "###] 100 %"},
        {"--help", "cannot be written."},
        {"exec --help", "unless --strict is given."},
        {"check-config " + a.path("empty"), "errors: "},
        {"clean", "(kessard)"},
        {"doctor --config " + a.path("empty"), "findings: "},
        {"get x --port 1 --timeout-ms nothing", "--help"}};
    for (const auto& [command, wanted] : commands) {
        const std::string shown =
            bash(a, "script -qec \"stty cols 80; $k " + command + "\" /dev/null | tr '\\r' '\\n'");
        EXPECT_FALSE(std::regex_search(shown, std::regex("[^\n]{80}"))) << shown;
        EXPECT_TRUE(in_order(shown, {wanted}));
    }
}

TEST_F(ConsoleCommands, SayWhyAnAgentClosesAtOnce) {
    const auto closed = [&](const texts& words, const texts& reasons) {
        expect(words, {"the agent closed the connection", "most likely"}, 2);
        expect(words, reasons, 2);
    };
    a.set("TRAN_AGENT", "REMOTE_COMMANDS_YN", "N");
    a.set("COMMON", "STATE_FILE", "state");
    start_running(a);
    texts afar = {"exec", "--host", "127.0.0.1", "--port", std::to_string(a.port()), "true"};
    closed({"exec", "true"}, {"REMOTE_COMMANDS_YN is N"});
    a.variables["TRAN_AGT_CFG_FILE"] = "/dev/null";
    closed(afar, {"REMOTE_COMMANDS_YN is N"});
    std::vector<kessctl::command_client> taken(5);
    for (kessctl::command_client& one : taken)
        EXPECT_TRUE(one.connect("127.0.0.1", a.port()));
    closed(afar, {"all its places", "ALLOWED_ADDRESSES", "127.0.0.1", "TLS"});
    a.variables["TRAN_AGT_CFG_FILE"] = a.cfg_file();
    closed({"renew"}, {"all its places", "for which it has refused ", " since its start"});
    EXPECT_EQ(a.stop(), 0);
    a.set("TRAN_AGENT", "ALLOWED_ADDRESSES", "127.0.0.2,10.0.0.0/8");
    start_running(a);
    closed({"renew"}, {"ALLOWED_ADDRESSES does not hold 127.0.0.1"});
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
        {{"set-config", "--log-qcnt", "3"}, "3 not in {1,2,4,8,16} (--force"},
        {{"set-config", "--log-flags", "SZ"}, "SZ not of SEVBCIXQ (--force"},
        {{"set-config", "--sfilter", "3", "--force"}, "cannot connect"},
        {{"set-resource", "--cpu-sec", "1", "--cpu-pcnt", "900", "--fs-pcnt", "1"}, "0 to 100"},
        {{"statu"}, "there is no 'statu', nearest is 'status'"},
        {{"show", "servces"}, "there is no 'servces', nearest is 'services'"},
        {{"status", "--ful", "3"}, "there is no '--ful', nearest is '--full'"},
        {{"show", "services"}, "SVC_HASH_TBL_SHMKEY"},
        {{"show", "queues", "--cfg", ""}, "give --config, or set TRAN_AGT_CFG_FILE"},
        {{"show"}, "A subcommand is required: settings, services, registry, queues"},
        {{"put-notification", "--rate", "-1"}, "not in range 0.010000 to 1000000.000000"},
        {{"renew"}, "127.0.0.1"},
        {{"serve", "--services", "/nowhere"}, "/nowhere: No such file or directory"},
    };
    a.write_cfg();
    for (const auto& [words, wanted] : cases)
        expect(words, {wanted}, 2);
}

} // namespace
