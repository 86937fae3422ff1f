// Several agents on one host: what kessctl new-agent writes starts beside the others, and each
// serves on its own.
#include "checks.h"
#include "server/stand_in.h"

namespace {

using namespace test_support;

constexpr char WELL[] = "0\nfindings: 0\n";

class SeveralAgents : public testing::Test {
  protected:
    std::map<std::string, agent> places; // for keys and ports; their objects are removed
    std::map<std::string, process> daemons;
    agent& a = places["web"];

    std::string run(texts words) const {
        words.insert(words.begin(), KESSCTL_PROGRAM);
        const program_result done = run_program(words, {{"KESSARD_ROOT", a.home()}});
        return std::to_string(done.status) + "\n" + done.out + done.err;
    }
    std::string make(const std::string& name) {
        const agent& place = places[name];
        return run({"new-agent", name, "--first-port", std::to_string(place.port()), "--first-key",
                    std::to_string(place.shm_key("TRAN_LOGF_QUE_INFO_SHMKEY"))});
    }
    std::string home(const std::string& name) const {
        return a.path("var/lib/kessard/agents/" + name);
    }
    std::string logs(const std::string& name) const {
        return a.path("var/log/kessard/agents/" + name + "/proc/kessard");
    }
    std::string cfg_file(const std::string& name) const {
        return a.path("etc/kessard/" + name + "/agt.cfg");
    }
    void start(const std::string& name) {
        std::filesystem::create_directories(home(name) + "/run");
        std::filesystem::create_directories(logs(name));
        const environment variables = {{"TRAN_AGT_HOME", home(name)},
                                       {"TRAN_AGT_CFG_FILE", cfg_file(name)}};
        daemons.try_emplace(name, texts{KESSARD_PROGRAM}, variables);
    }
};

TEST_F(SeveralAgents, StartFromWhatIsWrittenForThemAndDoNotSeeEachOther) {
    std::filesystem::create_directories(a.path("etc/kessard"));
    kessctl::stand_in server;
    ASSERT_EQ(server.start("127.0.0.1", a.server_port()), "");
    std::string text = content(SOURCE_TREE "agt/conf/agt.cfg");
    text.replace(text.find("7720"), 4, std::to_string(a.server_port()));
    text.replace(text.find("AUDIT_YN = Y"), 12, "AUDIT_YN = N");
    a.write_file("etc/kessard/agt.cfg", text);
    EXPECT_TRUE(in_order(make("../x"), {"2\n", "a name of an agent has up to 64"}));
    a.create_shm("TRAN_LOGF_QUE_INFO_SHMKEY", 10);
    for (const std::string name : {"web", "db-2", "batch"}) {
        EXPECT_TRUE(in_order(make(name), {"0\n", name + "/agt.cfg: command port "}));
        start(name);
    }
    for (const auto& [name, daemon] : daemons)
        EXPECT_TRUE(wait_until([&, &agent = name] {
            return run({"--agent", agent, "doctor"}) == WELL;
        })) << run({"--agent", name, "doctor"});
    EXPECT_TRUE(in_order(make("web"), {"2\n", "web/agt.cfg is there already"}));
    int depth = 10;
    for (const auto& [name, daemon] : daemons)
        EXPECT_TRUE(in_order(
            run({"--agent", name, "set-config", "--call-trc-depth", std::to_string(++depth)}),
            {"0\n", "result_code : 0"}));
    depth = 10;
    for (const auto& [name, daemon] : daemons) {
        text = run({"--agent=" + name, "show", "settings"});
        EXPECT_TRUE(in_order(text, {"call_trc_depth", ": " + std::to_string(++depth) + "\n"}))
            << text;
        EXPECT_EQ(run({"--agent", name, "doctor"}), WELL);
        EXPECT_TRUE(in_order(run({"--agent", name, "status"}),
                             {"kessard pid " + std::to_string(daemon.pid())}));
    }
}

TEST_F(SeveralAgents, WaitForAnAddressThatTheHostDoesNotHaveYet) {
    a.set("TRAN_AGENT", "IP_ADDRESS", "192.0.2.1");
    a.write_cfg();
    process check({KESSCTL_PROGRAM, "check-config", "--wait"}, a.variables);
    const std::string waits = "kessctl: waiting until this host has the address 192.0.2.1\n";
    EXPECT_TRUE(wait_until([&] { return check.err() == waits; })) << check.err();
    a.set("TRAN_AGENT", "IP_ADDRESS", "127.0.0.1");
    a.write_cfg();
    EXPECT_EQ(check.wait_exit(), 0) << check.out();
    EXPECT_EQ(check.err(), waits);
}

} // namespace
