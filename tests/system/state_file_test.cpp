// The state file and what systemd is told from the same figures.
#include <sys/un.h>

#include "exchanges.h"
#include "ext_peer.h"
#include "ring_queue.h"
#include "sem.h"
#include "service_manager.h"
#include "set_svc_hash_tbl.h"
#include "state_file.h"

namespace {

using namespace test_support;

class StateFile : public exchanges {
  protected:
    StateFile() { a.set("COMMON", "STATE_FILE", "state"); }
    KESSARD_STATE now() const {
        const std::string bytes = content(a.path("state"));
        KESSARD_STATE state{};
        EXPECT_EQ(bytes.size(), sizeof state);
        std::memcpy(&state, bytes.data(), std::min(bytes.size(), sizeof state));
        return state;
    }
    // Whether a figure comes to be that.
    template <class Figure> void expect(Figure figure, std::int64_t wanted) {
        EXPECT_TRUE(wait_until([&] { return figure(now()) == wanted; })) << figure(now());
    }
};
#define FIGURE(name) ([](const KESSARD_STATE& state) { return state.name; })

TEST_F(StateFile, TakesThePlaceOfWhatStandsThere) {
    const std::string path = a.path("state");
    a.write_file("victim", "left alone");
    const std::pair<const char*, int> cases[] = {// what makes what stands there, and why it stays
                                                 {"true", 0},
                                                 {"echo old >state; chmod 600 state", 0},
                                                 {"rm state; mkfifo state", 0},
                                                 {"ln -sf victim state; ln -s victim state.new", 0},
                                                 {"rm state; mkdir state", EISDIR},
                                                 {"rmdir state; mkdir state.new", EEXIST}};
    const mode_t own_mask = umask(077);
    for (const auto& [command, error] : cases) {
        SCOPED_TRACE(command);
        run_program({"/bin/sh", "-c", "cd " + a.home() + " && " + command});
        a.mark_log();
        start_running(a);
        EXPECT_EQ(a.count_log("<!> state file cannot be made, errno : " + std::to_string(error)),
                  error == 0 ? 0u : 1u);
        struct stat info {};
        EXPECT_TRUE(error != 0 ||
                    (lstat(path.c_str(), &info) == 0 && info.st_mode == 0100644 &&
                     now().magic == STATE_FILE_MAGIC && now().pid == a.pid() && now().ended == 0));
        EXPECT_EQ(a.stop(), 0);
        EXPECT_TRUE(error != 0 || now().ended == 1);
    }
    umask(own_mask);
    EXPECT_EQ(content(a.path("victim")), "left alone");
}

TEST_F(StateFile, CountsWhatHappens) {
    start();
    const ext_peer hanging(a, "0001Rsleep 60");
    ask_ext(a, "0001R" + ext_items({"true", "exit 3"}));
    ext_peer uploading(a, "0002R" + ext_items({a.path("up"), "name", "5", "420"}));
    uploading.send("bytes");
    uploading.receive();
    EXPECT_EQ(a.run({"get", a.path("sent"), a.path("down")})[0], '0');
    EXPECT_NE(a.run({"get", a.path("nothing"), a.path("down")})[0], '0');
    put_notifications();
    expect(FIGURE(notifications_sent), 2);
    EXPECT_TRUE(renew());
    expect(FIGURE(retrieval.begun), 2);
    EXPECT_TRUE(update() && sweep());
    const auto before = now();
    EXPECT_GT(before.server_answered_ms * before.device_info_sent * before.upload.good_ms, 0);
    EXPECT_EQ(before.threads[STATE_NOTIFIER].running, 1);
    std::vector<kessctl::command_client> more(6);
    for (kessctl::command_client& one : more)
        EXPECT_TRUE(one.connect("127.0.0.1", a.port()));
    server.close_listener();
    server.drop_connections();
    put_notifications();
    expect(FIGURE(notifications_dropped), 2);
    expect(FIGURE(link_up), 0);
    expect(FIGURE(connections_refused[STATE_REFUSED_PLACE]), 2);
    expect(FIGURE(remote_commands_timed_out), 1);
    const KESSARD_STATE all = now();
    EXPECT_EQ(all.link_wanted, 1);
    EXPECT_EQ(all.commands[static_cast<int>(MSG_RENEW_SERVICE_LIST_REQ)], 1);
    EXPECT_EQ(all.commands[MSG_EXT_REQ], 5);
    EXPECT_EQ(all.remote_commands, 3);
    EXPECT_EQ(all.remote_commands_failed, 1);
    EXPECT_EQ(all.files_received + all.files_sent, 2);
    EXPECT_EQ(all.file_bytes_received + all.file_bytes_sent, 5 + 300003);
    EXPECT_EQ(all.file_failures, 1);
    EXPECT_EQ(all.upload.elements, 20);
    EXPECT_GT(all.sweeps * all.sweep_us, 0);
    EXPECT_EQ(a.stop(), 0);
    a.set("COMMON", "LOG_HOME", "nowhere");
    a.start();
    EXPECT_TRUE(wait_until([&] { return now().ended == 0 && now().log_lines_lost > 9; }));
}

TEST_F(StateFile, NamesASemaphoreAndBringsTheFilterBack) {
    for (const bool with_file : {true, false}) {
        start();
        a.settings()->svc_filtering = 2;
        std::optional<agt::sem_hold> hold(std::in_place, a.sem_id("SVC_HASH_TBL_SEMKEY"), 0);
        EXPECT_TRUE(renew());
        EXPECT_TRUE(wait_until([&] { return a.settings()->svc_filtering == 0; }));
        expect(FIGURE(threads[STATE_RETRIEVAL].waits_for), 1 + agt::row_of(agt::SERVICE_TABLE_SEM));
        expect(FIGURE(filter_switched_off), 2);
        a.signal(SIGKILL);
        EXPECT_EQ(a.wait_exit(), 128 + SIGKILL);
        hold.reset();
        if (!with_file)
            a.unset("COMMON", "STATE_FILE");
        start();
        EXPECT_EQ(a.settings()->svc_filtering, with_file ? 2 : 0);
        EXPECT_EQ(a.count_log("(i) service filter put back to 2, a retrieval was killed"),
                  with_file ? 1u : 0u);
        expect(FIGURE(filter_switched_off), with_file ? STATE_FILTER_NONE : 2);
        EXPECT_EQ(a.stop(), 0);
    }
}

// The daemon's end of a service manager's socket.
class ServiceManager : public testing::Test {
  protected:
    agent a;
    sockaddr_un address{AF_UNIX, ""};
    agt::unique_fd sockfd{socket(AF_UNIX, SOCK_DGRAM, 0)};

    ServiceManager() {
        std::strcpy(address.sun_path, a.path("notify").c_str());
        EXPECT_EQ(bind(sockfd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    std::string receive(int limit_ms = LIMIT_MS) const {
        char text[256];
        const bool ready = agt::wait_fd(sockfd.get(), POLLIN, limit_ms) == agt::wait_result::ready;
        const ssize_t length = ready ? recv(sockfd.get(), text, sizeof text, 0) : 0;
        return {text, static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
    }
};

TEST_F(ServiceManager, HearsOfTheStartTheThreadsAndTheEnd) {
    a.variables["NOTIFY_SOCKET"] = address.sun_path;
    a.variables["WATCHDOG_USEC"] = "4000000";
    a.start();
    EXPECT_EQ(receive(), "READY=1");
    EXPECT_EQ(a.count_log("[ kessard ] start... running : 1"), 1u);
    EXPECT_EQ(receive(), "STATUS=server not asked yet; notify link off; 0 services");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(receive(2000), "WATCHDOG=1");
    a.signal(SIGTERM);
    EXPECT_EQ(receive(), "STOPPING=1");
    EXPECT_EQ(a.wait_exit(), 0);
}

TEST_F(ServiceManager, HearsNothingWhileAThreadStands) {
    using namespace kessard;
    setenv("NOTIFY_SOCKET", address.sun_path, 1);
    setenv("WATCHDOG_USEC", "4000", 1);
    const zeroed<SVC_HASH_TBL> table;
    svc_hash_tbl = table.get();
    STATE_THREAD& thread = figures->threads[STATE_NOTIFIER];
    const std::int64_t now_ms = agt::monotonic_ms();
    const std::tuple<std::int64_t, std::int64_t, std::int64_t, std::int64_t, bool> cases[] = {
        // running, rhythm, last pass, semaphore, and whether it passes
        {1, 20, now_ms, 0, true},
        {1, 20, now_ms - 61000, 0, false},
        {0, 20, now_ms - 61000, 0, true},
        {1, 20, now_ms - 61000, 5, true},
        {1, 30600, now_ms - 61000, 0, true},
        {1, 30100, now_ms - 61000, 0, false}};
    for (const auto& [running_now, rhythm_ms, pass_ms, waits_for, passes] : cases) {
        std::tie(thread.running, thread.rhythm_ms, thread.last_pass_ms, thread.waits_for) =
            std::tuple(running_now, rhythm_ms, pass_ms, waits_for);
        pass_time(2);
        keep_service_manager_posted();
        std::string heard = receive(0);
        heard = heard.starts_with("STATUS=") ? receive(0) : heard;
        EXPECT_EQ(heard, passes ? "WATCHDOG=1" : "") << rhythm_ms;
    }
}

} // namespace
