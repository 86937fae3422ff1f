// Who may command the agent, and what a service manager is told, through the real program.

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

// Lines put behind the first one that starts with `behind` (none: at the end), and what is said of
// the last of them that is not blank. Nothing: they are none of the daemon's business.
struct slip {
    std::string lines;
    std::string said;
    std::string behind = "[TRAN_AGENT]";
};

const std::string LONG = "ALLOWED_ADDRESSES = " + std::string(224, ' ') + "100.0.0.0/16\n";
const std::string ALL_OF_TLS = "CERT_FILE = c\nKEY_FILE = k\nCA_FILE = a\n";
const slip SLIPS[] = {
    {"REMOTE_COMMANDS_YN =\n", "REMOTE_COMMANDS_YN: '' is neither Y nor N"},
    {"REMOTE_COMMANDS_YN N\n", "no '=' stands behind the keyword"},
    {"REMOTE_COMMANDS_YN : N\n", "no '=' stands behind the keyword"},
    {"REMOTE_COMMANDS_YN N # was = Y\n", "no '=' stands behind the keyword"},
    {"REMOTE_COMMANDS_YN:N\n", "'REMOTE_COMMANDS_YN:N' is not REMOTE_COMMANDS_YN"},
    {"REMOTE_COMMANDS_YN= N\n", "a blank must stand between the keyword and the '='"},
    {"ALLOWED_ADDRESSES=127.0.0.1\n", "a blank must stand between the keyword and the '='"},
    {"REMOTE_COMMAND_YN = N\n", "'REMOTE_COMMAND_YN' is not REMOTE_COMMANDS_YN"},
    {"REMOTE_COMMANDSS_YN = N\n", "is not REMOTE_COMMANDS_YN"},
    {"REMOTE_C0MMANDS_YN = N\n", "is not REMOTE_COMMANDS_YN"},
    {"REMOTE_COMMNADS_YN = N\n", "is not REMOTE_COMMANDS_YN"},
    {"Remote_Commands_Yn = N\n", "is not REMOTE_COMMANDS_YN"},
    {"remote-commands yn = N\n", "'remote-commands' is not REMOTE_COMMANDS_YN"},
    {"\"REMOTE_COMMANDS_YN\" = N\n", "is not REMOTE_COMMANDS_YN"},
    {"\xEF\xBB\xBFREMOTE_COMMANDS_YN = N\n", "is not REMOTE_COMMANDS_YN"},
    {"REMOTE_COMM\xD0\x90NDS_YN = N\n", "is not REMOTE_COMMANDS_YN"}, // an A of another alphabet
    {";AUDIT_YN = Y\n", "';AUDIT_YN' is not AUDIT_YN"},
    {"AUDIT_YN = \"Y\"\n", "is neither Y nor N"},
    {"AUDIT_YN = Y\nAUDIT_YN = Y\n", "is not read, that of line "},
    {std::string("AUDIT_YN \0= Y\n", 14), "holds a NUL byte"},
    {std::string("A\0U\0D\0I\0T\0_\0Y\0N\0 \0=\0", 20) + "\n", "holds a NUL byte"},
    {"#\rAUDIT_YN = Y\n", "is not read"},
    {LONG, "is longer than 255 characters and would be cut"},
    {"#" + std::string(254, '-') + "AUDIT_YN = Y\n", "is read out of the rest of a long line"},
    {"ALLOWED_ADDRESSES =\n", "names no address"},
    {"ALLOWED_ADDRESSES = 127.0.0.1,server\n", "'server' is no address and no block of addre"},
    {"ALLOWED_ADDRESSES = 127.0.0.1 # here\n", "'#' is no address"},
    {"ALLOWED_ADDRESSES = 127.0.0.1, \\\n", "is no address"},
    {"REMOTE_COMMANDS_YN = N\n", "stands in [TRAN_SERVER] and belongs into [TRAN_AGENT]",
     "[TRAN_SERVER]"},
    {"[TRAN_AGENT]\nREMOTE_COMMANDS_YN = N\n", "stands in a second section [TRAN_AGENT], that ",
     ""},
    {"[TRAN_AGENT\nREMOTE_COMMANDS_YN = N\n", "[TRAN_AGENT], which is not [TRAN_AGENT]", ""},
    {" [TRAN_AGENT]\nREMOTE_COMMANDS_YN = N\n", "which is not [TRAN_AGENT]", ""},
    {"TRAN_AGENT]\nREMOTE_COMMANDS_YN = N\n", "which is not [TRAN_AGENT]", ""},
    {"[tran_agent]\nREMOTE_COMMANDS_YN = N\n", "stands in [tran_agent], which is not [TRAN_AGENT]",
     ""},
    {"AUDIT_YN = Y\n", "stands in front of the first section", "#"},
    {"[TSL]\n" + ALL_OF_TLS, "TLS/CA_FILE: stands in [TSL], which is not [TLS]", ""},
    {"[tls]\n", "[tls] is not [TLS]", ""},
    {"[TLS]\n", "TLS/KEY_FILE: is missing in this section", ""},
    {"CA_FILE = a\n", "stands in [TRAN_AGENT] and belongs into [TLS]"},
    {"[TLS]\n" + ALL_OF_TLS + "PEER_NAMES = ,\n", "TLS/PEER_NAMES: names nobody", ""},
    {"[TLS]\n" + ALL_OF_TLS + "PEERS = a\n", "'PEERS' is no key of this section", ""},
    {"[TLS]\n" + ALL_OF_TLS + "[TLS]\n", "stands in a section that is there twice", ""},
    {"#REMOTE_COMMANDS_YN = N\n  # AUDIT_YN = Y\nREMOTE_LIMIT = 3\n", ""},
    {"\tAUDIT_YN\t=\tN remark\r\n", ""},
    {"[COLLECTOR]\nSERVER_NAME = a\nALLOWED_ADDRESSES=b\n[LOG] over TLS\nCA_FILE = c\n", "", ""}};

TEST(AccessControl, DoesNotStartWithASlipInAKeyThatProtects) {
    agent a;
    a.write_cfg();
    const std::string cfg = a.path("slip.cfg");
    const std::string sound = "# a remark\n" + content(a.cfg_file());
    a.variables["TRAN_AGT_CFG_FILE"] = cfg;
    for (const auto& [lines, said, behind] : SLIPS) {
        SCOPED_TRACE(lines);
        std::string text = sound;
        const std::size_t at =
            behind.empty() ? text.size() : text.find('\n', text.find(behind)) + 1;
        a.write_file("slip.cfg", text.insert(at, lines));
        const auto last =
            std::count(text.begin(), text.begin() + static_cast<long>(at + lines.size()), '\n');
        const std::string checked = a.run({"check-config"});
        EXPECT_EQ(checked.find("; the daemon does not start") == checked.npos, said.empty())
            << checked;
        if (said.empty()) {
            start_running(a);
            EXPECT_EQ(a.stop(), 0);
            continue;
        }
        a.mark_log();
        a.start();
        EXPECT_EQ(a.wait_exit(), 1);
        const std::string line = "<!> " + cfg + ":" + std::to_string(last) + ": ";
        EXPECT_TRUE(in_order(a.log(), {line, said})) << a.log();
        EXPECT_TRUE(in_order(a.err(), {line, said}));
        EXPECT_EQ(a.count_log("agt_cmd_port"), 0u);
        EXPECT_TRUE(in_order(checked, {cfg + ":" + std::to_string(last) + ": error: ", said}));
    }
}

} // namespace
