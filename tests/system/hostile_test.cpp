// Peers, neighbours and hosts that would end the daemon, hold it up or lock somebody out of it.
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>

#include <future>
#include <regex>

#include "sem.h"
#include "served_agent.h"
#include "util.h"

namespace {

using namespace test_support;
using kessctl::command_client;
using kessctl::start_frame;

class Hostile : public served_agent {
  protected:
    int table_sem() const { return a.sem_id("SVC_HASH_TBL_SEMKEY"); }

    // The longest wait for an answer, in milliseconds, of somebody who asks all the time.
    long long longest_wait(int for_ms) {
        long long longest_ms = 0;
        for (const long long end_ms = agt::monotonic_ms() + for_ms; agt::monotonic_ms() < end_ms;) {
            const long long asked_ms = agt::monotonic_ms();
            EXPECT_TRUE(ask(start_frame('D'))) << client.error();
            longest_ms = std::max(longest_ms, agt::monotonic_ms() - asked_ms);
            agt::sleep_ms(20);
        }
        return longest_ms;
    }
    std::string handled() const { return kessctl::field_text(answer, "element_num"); }
};

TCP_CMD_MSG one_service() {
    const SERVICE_ELEMENT service = kessctl::make_service("ONE");
    return kessctl::modified_services_frame(&service, 1);
}

TEST_F(Hostile, WhoDripsOrTakesNothingHoldsUpNobody) {
    ASSERT_NO_FATAL_FAILURE(start());
    std::vector<command_client> drips(3);
    for (command_client& one : drips)
        ASSERT_TRUE(one.connect("127.0.0.1", a.port()));
    std::atomic<bool> over{false};
    std::thread dripping([&] {
        for (const TCP_CMD_MSG frame = start_frame('7'); !over; agt::sleep_ms(600))
            for (command_client& one : drips)
                one.send_bytes(&frame, 1);
    });
    command_client deaf; // asks without end and takes no answer
    ASSERT_TRUE(deaf.connect("127.0.0.1", a.port()));
    while (deaf.send(start_frame('D'), 200)) {
    }
    EXPECT_LT(longest_wait(5000), 1500);
    EXPECT_TRUE(a.wait_log("<!> cmd_event frame not complete in time, sockfd : ", 3));
    EXPECT_TRUE(a.wait_log("<!> tcp send error.. slen : -1"));
    over = true;
    dripping.join();
}

// A network with nothing but a loopback device, for the thread and all that it starts from now on.
struct private_network {
    bool made = unshare(CLONE_NEWNET) == 0 && set_up(true);

    static bool set_up(bool up) {
        ifreq device = {.ifr_ifrn = {"lo"}, .ifr_ifru = {}};
        device.ifr_flags = up ? IFF_UP : 0;
        const agt::unique_fd any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        return ioctl(any.get(), SIOCSIFFLAGS, &device) == 0;
    }
};

class Vanished : public private_network, public Hostile {
  protected:
    // Those of the daemon that stand.
    auto connections() const {
        char rows[64];
        std::snprintf(rows, sizeof rows, ":%04X \\S+ 01 | \\S+:%04X 01 ", a.port(),
                      a.server_port());
        const std::string table = content("/proc/" + std::to_string(a.pid()) + "/net/tcp");
        const std::regex standing(rows);
        return std::distance(std::sregex_iterator(table.begin(), table.end(), standing), {});
    }
};

TEST_F(Vanished, PeersLeaveTheirPlacesWithinAMinute) {
    if (!made)
        GTEST_SKIP() << "cannot make a network of its own";
    a.set("ACTIVE_SERVICE_EVENT", "ACTIVE_LIMIT", 1000);
    ASSERT_NO_FATAL_FAILURE(start());
    std::vector<command_client> others(4); // and the first takes the fifth place
    for (command_client& one : others)
        ASSERT_TRUE(one.connect("127.0.0.1", a.port()));
    EXPECT_TRUE(wait_until([&] { return connections() == 5 + 2; })); // the server has two
    ASSERT_TRUE(set_up(false));
    EXPECT_TRUE(wait_until([&] { return connections() == 0; }, 60000)) << connections();
    ASSERT_TRUE(set_up(true));
    EXPECT_TRUE(answers(a));
}

TEST_F(Hostile, APartOfAFrameIsDroppedAfterAPause) {
    ASSERT_NO_FATAL_FAILURE(start());
    const TCP_CMD_MSG frame = start_frame('D');
    ASSERT_TRUE(client.send_bytes(&frame, 700));
    agt::sleep_ms(1300); // longer than a part may pause, shorter than two of that
    EXPECT_TRUE(ask(frame));
    ASSERT_TRUE(client.send_bytes(&frame, 1400));
    agt::sleep_ms(300);
    ASSERT_TRUE(client.send_bytes(reinterpret_cast<const char*>(&frame) + 1400, 7));
    EXPECT_TRUE(client.receive(&answer));
    EXPECT_TRUE(in_order(a.out(), {"read error!!, add_len : -1", "#7 bytes are added!\n"}));
    ASSERT_TRUE(client.send_bytes(&frame, 1));
    EXPECT_TRUE(client.wait_closed(4000)); // two pauses
}

TEST_F(Hostile, ATakenTableIsWaitedForBesideTheOthers) {
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_EQ(agt::sem_lock(table_sem(), 0, SEM_UNDO), 0);
    command_client second;
    ASSERT_TRUE(second.connect("127.0.0.1", a.port()));
    ASSERT_TRUE(second.send(one_service()));
    EXPECT_LT(longest_wait(3000), 1000);
    EXPECT_TRUE(second.receive(&answer, LIMIT_MS));
    EXPECT_EQ(handled(), "000");
    EXPECT_TRUE(in_order(a, {"<!> svc_hash_tbl semaphore is taken, waiting for it. (pid " +
                                 std::to_string(getpid()) + ")",
                             "<!> svc_hash_tbl is taken for too long, nothing is changed."}));
    EXPECT_EQ(a.count_log("semaphore is taken"), 1u);
    agt::sem_unlock(table_sem(), 0, SEM_UNDO);
    EXPECT_TRUE(ask(one_service()));
    EXPECT_EQ(handled(), "001");
}

TEST_F(Hostile, HoldersInTurnLeaveTheDaemonItsShare) {
    ASSERT_NO_FATAL_FAILURE(start());
    std::atomic<bool> over{false};
    std::vector<std::thread> holders;
    for (int i = 0; i < 3; ++i)
        holders.emplace_back([&] {
            while (!over && agt::sem_lock(table_sem(), 0, SEM_UNDO) == 0) {
                agt::sleep_ms(60);
                agt::sem_unlock(table_sem(), 0, SEM_UNDO);
            }
        });
    long long longest_ms = 0;
    for (int i = 0; i < 10; ++i) {
        const long long asked_ms = agt::monotonic_ms();
        EXPECT_TRUE(ask(one_service()));
        longest_ms = std::max(longest_ms, agt::monotonic_ms() - asked_ms);
    }
    over = true;
    for (std::thread& holder : holders)
        holder.join();
    EXPECT_LT(longest_ms, 1000);
}

TEST_F(Hostile, AListWithoutEndIsGivenUp) {
    server.set_services(services(8));
    ASSERT_NO_FATAL_FAILURE(start());
    server.change([](auto& options) {
        options.record = false;
        options.hook = [](const kessctl::exchange& one, std::string& reply) {
            if (one.request.hdr.msg_type[0] != '4' && one.request.hdr.msg_type[0] != '6')
                return;
            TCP_CMD_MSG block = start_frame('5');
            std::memcpy(block.body.get_service_list_rsp.element_num, "008", 4);
            reply.assign(reinterpret_cast<const char*>(&block), sizeof block);
        };
    });
    EXPECT_TRUE(renew());
    EXPECT_TRUE(a.wait_log("<!> service list does not end, given up. (services : 10000"));
    EXPECT_TRUE(a.wait_log(THREAD_END, 2));
    EXPECT_EQ(a.settings()->svc_filtering, 0);
    EXPECT_TRUE(ask(one_service()));
}

TEST_F(Hostile, DamageThatIsFoundAtTheStartIsNamed) {
    a.create_shm("TRAN_LOGF_QUE_INFO_SHMKEY", sizeof(TRAN_LOGF_QUE_INFO));
    a.create_shm("SVC_HASH_TBL_SHMKEY", sizeof(SVC_HASH_TBL));
    a.create_shm("JCACHE_HASH_TBL_SHMKEY", sizeof(JCACHE_HASH_TBL));
    server.close_listener(); // the table stays as it is
    start_running(a);
    EXPECT_TRUE(in_order(
        a, {"<!> tran_logf_que_info names 0 log queues", "(i) svc_hash_tbl open complete.",
            "<!> svc_hash_tbl is not in order : 0 slots used, 0 free of 10000. (stop the agent",
            "<!> jcache_hash_tbl is not in order : 0 slots used, 0 free of 2000000."}));
    const program_result status = a.console({"status"});
    EXPECT_EQ(status.status, 1);
    EXPECT_TRUE(in_order(status.out, {"the settings name 0 log queues"}));
    EXPECT_TRUE(in_order(status.out, {"the service table is corrupt: 0 slots used and 0 free"}));
    EXPECT_TRUE(in_order(a.console({"check-config"}).out, {"the settings that exist name 0 log"}));
    EXPECT_TRUE(
        in_order(a.console({"doctor"}).out, {"the cache table is corrupt", "kessctl clean"}));
}

TEST_F(Hostile, ATriggerThatStaysStartsNothing) {
    a.set("SERVICE_HASH", "DAILY_UPDATE_YN", "Y");
    ASSERT_NO_FATAL_FAILURE(start());
    std::filesystem::create_directory(a.path("svc_update")); // cannot be deleted like a file
    EXPECT_TRUE(a.wait_log("<!> [" + a.path("svc_update") + "] cannot be deleted, no update."));
    agt::sleep_ms(2500);
    EXPECT_EQ(a.count_log("cannot be deleted"), 1u);
    EXPECT_EQ(a.count_log("(I) run shell-command"), 0u);
    std::filesystem::remove(a.path("svc_update"));
    a.write_file("svc_update", "");
    EXPECT_TRUE(a.wait_log("(I) run shell-command"));
}

TEST_F(Hostile, ALimitOnFilesCostsOnlyLines) {
    ASSERT_NO_FATAL_FAILURE(start());
    const rlimit none = {1, RLIM_INFINITY};
    ASSERT_EQ(prlimit(a.pid(), RLIMIT_FSIZE, &none, nullptr), 0);
    EXPECT_TRUE(ask(start_frame('D')));
    const rlimit all = {RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(prlimit(a.pid(), RLIMIT_FSIZE, &all, nullptr), 0);
    EXPECT_TRUE(in_order(a.console({"exec", "grep SigIgn /proc/self/status"}).out,
                         {"SigIgn:\t0000000000000000"}));
    EXPECT_TRUE(answers(a));
}

// The program finds no free descriptor below `first_free`, and none from `limit` on.
TEST_F(Hostile, InheritedDescriptorsAreNamedWhenTheyLeaveNoRoom) {
    const std::tuple<int, rlim_t, const char*> cases[] = {
        {3 + 1014, 1024, " : short of resources, errno : 24 (Too many open files)"},
        {3 + 1014, 4096, "<!> command connection refused. (descriptor "},
        {1022, 4096, "<!> command port refused. (descriptor 1024 of 1024)"}};
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    for (const auto& [first_free, limit, line] : cases) {
        server.stop(); // whose connections would leave holes when they close
        ASSERT_EQ(server.start("127.0.0.1", a.server_port()), "");
        std::vector<agt::unique_fd> filling;
        for (int fd = 3; fd < first_free; ++fd)
            if (fcntl(fd, F_SETFD, 0) != 0 && dup2(0, fd) == fd)
                filling.emplace_back(fd);
        const rlimit wanted = {limit, before.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &wanted), 0);
        a.mark_log();
        a.start();
        setrlimit(RLIMIT_NOFILE, &before);
        filling.clear();
        EXPECT_TRUE(wait_until([&, &text = line] { return !answers(a) && a.count_log(text) > 0; }))
            << line;
        a.signal(SIGKILL);
        a.wait_exit();
    }
}

TEST_F(Hostile, AFifoInPlaceOfTheLogIsNotWaitedFor) {
    char today[64];
    const time_t now = std::time(nullptr);
    struct tm local {};
    std::strftime(today, sizeof today, "logs/proc/kessard/kessard-%Y-%m-%d-log",
                  localtime_r(&now, &local));
    ASSERT_EQ(mkfifo(a.path(today).c_str(), 0600), 0);
    a.start();
    EXPECT_TRUE(wait_until([&] { return answers(a); }));
    EXPECT_EQ(a.stop(), 0);
}

// Standard output is a pipe that is full.
TEST(Say, DropsWhatNobodyReads) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(ends[1], STDOUT_FILENO);
        alarm(10);
        for (int i = 0; i < 20000; ++i)
            agt::say("#%d bytes are added!\n", i);
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
    close(ends[0]);
    close(ends[1]);
}

} // namespace
