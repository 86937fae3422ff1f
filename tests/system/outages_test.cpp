// What status, doctor and metrics say of outages, against the table of docs/operations.md, and of
// state files that tell nothing. The console has the clock of the daemon, which the tests move.
#include <sys/ptrace.h>

#include <regex>

#include "faulty_agent.h"
#include "host/process.h"
#include "kessard/state_file.h"
#include "sem.h"

namespace {

using namespace test_support;

constexpr char RULES[] = SOURCE_TREE "packaging/prometheus/kessard.rules.yml";

// The cells of a row: nothing, outage, after, status, doctor, metrics, alert.
texts row(const std::string& outage) {
    const std::string page = content(SOURCE_TREE "docs/operations.md");
    const std::size_t at = page.find("| " + outage + " |");
    std::istringstream line(at == page.npos ? "" : page.substr(at, page.find('\n', at) - at));
    texts cells;
    for (std::string cell; std::getline(line, cell, '|');)
        cells.push_back(cell);
    cells.resize(7);
    return cells;
}

// Whether the output has each text of a cell, whose words in capitals stand for any.
bool says(const std::string& output, const std::string& cell) {
    const std::string line = std::regex_replace(output, std::regex("\\s+"), " ");
    const std::regex quoted("`([^`]+)`");
    std::sregex_iterator at(cell.begin(), cell.end(), quoted);
    const auto is_there = [&](const std::smatch& one) {
        const std::string plain =
            std::regex_replace(one.str(1), std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
        return std::regex_search(
            line, std::regex(std::regex_replace(plain, std::regex("[A-Z][A-Z_]+"), "\\S+")));
    };
    return at != std::sregex_iterator() && std::all_of(at, std::sregex_iterator(), is_there);
}

class Outages : public faulty_agent {
  protected:
    void SetUp() override {
        faulty_agent::SetUp();
        if (IsSkipped())
            return;
        a.set("COMMON", "STATE_FILE", "state");
        start();
        a.variables["KESSARD_FAULTS_OF"] = "kessctl"; // started from here on
        ASSERT_TRUE(wait_until([&] { return a.console({"status"}).status == 0; }));
    }
    bool status_says(const std::string& cell) const {
        const program_result done = a.console({"status"});
        std::istringstream lines(done.out);
        int count = 0;
        for (std::string line; std::getline(lines, line); ++count)
            EXPECT_LE(line.size(), 80u) << line;
        EXPECT_LT(count, 24) << done.out;
        return done.status == std::atoi(cell.c_str()) && says(done.out, cell);
    }
    // An outage is told of when it is time, and not by status before.
    void expect(const std::string& outage) const {
        const texts cells = row(outage);
        const int after_sec = std::atoi(cells[2].c_str());
        const int early_sec = std::max(after_sec - 20, 0);
        table->monotonic_sec += early_sec;
        EXPECT_TRUE(after_sec == 0 || !status_says(cells[3])) << outage;
        table->monotonic_sec += after_sec > 0 ? after_sec - early_sec + 1 : 0;
        EXPECT_TRUE(wait_until([&] { return status_says(cells[3]); })) << outage << "\n"
                                                                       << a.console({"status"}).out;
        const std::string found = a.console({"doctor"}).out;
        EXPECT_TRUE(says(found, cells[4])) << outage << "\n" << found;
        const std::string figures = a.console({"metrics"}).out;
        EXPECT_TRUE(says(figures, cells[5])) << outage << "\n" << figures;
        EXPECT_TRUE(cells[6] == " none " || says(content(RULES), cells[6])) << outage;
    }
    bool is_well() const {
        return wait_until([&] { return a.console({"status"}).status == 0; });
    }
};

TEST_F(Outages, OfTheServerAndTheLink) {
    server.stop();
    put_notifications();
    ASSERT_TRUE(a.wait_log("<!> network error : socket close"));
    ASSERT_TRUE(a.wait_log("<!> server connection fail. (ip ", 2));
    expect("link cut");
    expect("server killed");
    ASSERT_EQ(server.start("127.0.0.1", a.server_port()), "");
    EXPECT_TRUE(is_well());
}

TEST_F(Outages, OfASemaphore) {
    {
        const agt::sem_hold hold(a.sem_id("SVC_HASH_TBL_SEMKEY"), 0);
        ASSERT_TRUE(renew());
        ASSERT_TRUE(a.wait_log("semaphore is taken, waiting for it"));
        expect("semaphore held");
    }
    EXPECT_TRUE(is_well());
}

TEST_F(Outages, OfAThread) {
    pid_t held = 0;
    const std::string threads = "/proc/" + std::to_string(a.pid()) + "/task";
    for (const auto& one : std::filesystem::directory_iterator(threads))
        if (const pid_t id = std::atoi(one.path().filename().c_str());
            kessctl::process_comm(id) == "health_check")
            held = id;
    ASSERT_EQ(ptrace(PTRACE_SEIZE, held, nullptr, nullptr), 0) << std::strerror(errno);
    ASSERT_EQ(ptrace(PTRACE_INTERRUPT, held, nullptr, nullptr), 0);
    ASSERT_EQ(waitpid(held, nullptr, __WALL), held);
    expect("thread stopped");
    ptrace(PTRACE_DETACH, held, nullptr, nullptr);
    EXPECT_TRUE(is_well());
}

TEST_F(Outages, OfATable) {
    a.traces()->used.top = UINT_MAX;
    expect("table unsound");
}

TEST_F(Outages, OfTheDisk) {
    set("write", ENOSPC);
    ASSERT_TRUE(wait_until([&] { return hits("write") > 2; }));
    clear();
    expect("disk full");
}

TEST_F(Outages, OfThePlaces) {
    kessctl::command_client held[4]; // and that of the fixture
    for (kessctl::command_client& one : held)
        ASSERT_TRUE(one.connect("127.0.0.1", a.port()) &&
                    one.request(kessctl::start_frame('7'), &answer));
    expect("five places held");
}

TEST_F(Outages, OfTheStateFile) {
    KESSARD_STATE good;
    std::memcpy(&good, content(a.path("state")).data(), sizeof good);
    const auto changed = [&](auto KESSARD_STATE::*member, auto value) {
        KESSARD_STATE bad = good;
        bad.*member = value;
        return bytes_of(bad);
    };
    table->clock_sec = 20; // the daemon has not just started
    const std::pair<std::string, std::string> faults[] = {
        {"", "damaged: 0 bytes instead of 2200"},
        {bytes_of(good) + "x", "damaged: 2201 bytes instead of 2200"},
        {std::string(sizeof good, '\0'), "not finished yet"},
        {std::string(sizeof good, 'x'), "damaged: no state file"},
        {changed(&KESSARD_STATE::version, 2), "of layout 2 instead of 1"},
        {changed(&KESSARD_STATE::pid, good.pid + 1), "of a daemon that ended"},
        {changed(&KESSARD_STATE::ended, 1), "of a daemon that ended"},
        {changed(&KESSARD_STATE::server_failing, -1), "damaged: its values cannot be"},
        {changed(&KESSARD_STATE::server_answered_ms, INT64_MAX), "damaged: its values cannot be"}};
    for (const auto& [bytes, fault] : faults) {
        a.write_file("state", bytes);
        EXPECT_TRUE(status_says("1 `/state: " + fault + "` `server: unknown (state file: `"))
            << fault << "\n"
            << a.console({"status"}).out;
    }
    std::filesystem::remove(a.path("state"));
    EXPECT_TRUE(says(a.console({"doctor"}).out, "`/state: missing restart the daemon`"));
    EXPECT_TRUE(says(a.console({"metrics"}).out, "`kessard_state_file_usable 0`"));
    a.unset("COMMON", "STATE_FILE");
    a.write_cfg();
    EXPECT_TRUE(status_says("0 `server: unknown (no STATE_FILE)`"));
}

} // namespace
