// Everything at once, in rounds; between them the daemon may hold no more than after the first.
// KESSARD_SOAK_SEC says for how long, a minute otherwise.
//
// Hostile neighbours live beside it: processes hold the service table in turn, one peer drips, one
// peer at a time vanishes without a word. In the second part of a round somebody writes anything
// into the segments while the server stops in the middle of its list. All the while somebody asks,
// and measures how long the answers take.
#include <linux/filter.h>

#include "certificates.h"
#include "exchanges.h"
#include "sem.h"

namespace {

using namespace test_support;

constexpr int ROUND_MS = 6000;
constexpr int SPOIL_MS = 3000;
constexpr int HOLD_MS = 60;
constexpr int BUSY_ANSWER_MS = 3000; // beside other tests; alone it is a second
constexpr long long DEAD_MS = 60000; // a peer that vanished is gone by then
#if defined __SANITIZE_ADDRESS__ || defined __SANITIZE_THREAD__
constexpr long MEMORY_BOUND_KB = 256 * 1024; // a sanitizer keeps what was freed
#else
constexpr long MEMORY_BOUND_KB = 512;
#endif
#if defined __SANITIZE_THREAD__
constexpr int THREADS = 7; // with the sanitizer's own
#else
constexpr int THREADS = 6; // of a daemon at rest
#endif

struct figures {
    long anon_kb;
    std::size_t files;
    int threads;
    std::size_t processes; // its children too, but not itself
};

class Soak : public exchanges {
  protected:
    figures look() const {
        return {std::stol(status_of(a.pid(), "RssAnon")), open_files(a.pid()).size(),
                std::stoi(status_of(a.pid(), "Threads")), a.running().size() - 1};
    }

    void soak();

    // Runs each kind of exchange again and again; how many there were.
    int run_round() {
        std::atomic<int> count{0};
        std::vector<std::thread> holders;
        std::atomic<bool> over{false};
        for (int i = 0; i < 3; ++i)
            holders.emplace_back([&] { hold_in_turn(over); });
        const long long until_ms = agt::monotonic_ms() + ROUND_MS;
        std::vector<std::thread> threads;
        for (const auto& one : ALL)
            threads.emplace_back([&] {
                for (; agt::monotonic_ms() < until_ms; ++count)
                    EXPECT_TRUE((this->*one.second)()) << one.first;
            });
        while (agt::monotonic_ms() < until_ms && agt::sleep_ms(1500))
            server.drop_connections();
        for (std::thread& one : threads)
            one.join();
        over = true;
        for (std::thread& one : holders)
            one.join();
        return count;
    }
    void hold_in_turn(const std::atomic<bool>& over) {
        const int semid = a.sem_id("SVC_HASH_TBL_SEMKEY");
        while (!over && agt::sem_lock(semid, 0, SEM_UNDO) == 0) {
            agt::sleep_ms(HOLD_MS);
            agt::sem_unlock(semid, 0, SEM_UNDO);
        }
    }

    // Spoils the segments, and the server goes silent in the middle of a list.
    void run_spoilt_round() {
        set_fault(MSG_GET_SERVICE_LIST_RSPACK, {.silent = true});
        EXPECT_TRUE(renew());
        std::atomic<bool> over{false};
        std::thread vandal([&] { spoil_until(over); });
        SERVICE_ELEMENT one = kessctl::make_service("ONE");
        for (const long long until_ms = agt::monotonic_ms() + SPOIL_MS;
             agt::monotonic_ms() < until_ms; agt::sleep_ms(50))
            ask_timed(client, kessctl::modified_services_frame(&one, 1), longest_change_ms_);
        over = true;
        vandal.join();
        set_fault(MSG_GET_SERVICE_LIST_RSPACK, {});
    }

    void ask_timed(kessctl::command_client& asking, const TCP_CMD_MSG& request,
                   std::atomic<long long>& longest_ms) {
        const long long asked_ms = agt::monotonic_ms();
        TCP_CMD_MSG got;
        EXPECT_TRUE(asking.request(request, &got, LIMIT_MS)) << asking.error();
        longest_ms = std::max<long long>(longest_ms, agt::monotonic_ms() - asked_ms);
    }
    void ask_on(const std::atomic<bool>& over) {
        kessctl::command_client asking = new_client();
        ASSERT_TRUE(asking.connect("127.0.0.1", a.port())) << asking.error();
        for (int i = 0; !over; ++i, agt::sleep_ms(20))
            ask_timed(asking, kessctl::start_frame("7D"[i % 2]), longest_ms_);
    }

    void drip_on(const std::atomic<bool>& over) {
        const TCP_CMD_MSG frame = kessctl::start_frame('7');
        kessctl::command_client drip; // speaks no TLS
        for (; !over; agt::sleep_ms(600))
            if (!drip.send_bytes(&frame, 1))
                drip.connect("127.0.0.1", a.port());
    }

    // Peers that neither hear nor say anything any more, one after the other.
    void vanish_on(const std::atomic<bool>& over) {
        while (!over) {
            kessctl::command_client peer = new_client();
            const TCP_CMD_MSG frame = kessctl::start_frame('7');
            if (!peer.connect("127.0.0.1", a.port()) || !peer.request(frame, &unused_)) {
                agt::sleep_ms(100); // no place is left
                continue;
            }
            sock_filter nothing = BPF_STMT(BPF_RET | BPF_K, 0);
            const sock_fprog program = {1, &nothing};
            EXPECT_EQ(setsockopt(peer.fd(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program),
                      0);
            const long long until_ms = agt::monotonic_ms() + DEAD_MS;
            while (!over && is_served(peer.fd()) && agt::monotonic_ms() < until_ms)
                agt::sleep_ms(200);
            EXPECT_TRUE(over || !is_served(peer.fd()));
            vanished_ += over ? 0 : 1;
        }
    }
    // Whether the system knows a connection from the command port to this socket.
    bool is_served(int fd) const {
        sockaddr_in own{};
        socklen_t size = sizeof own;
        getsockname(fd, reinterpret_cast<sockaddr*>(&own), &size);
        char wanted[64];
        std::snprintf(wanted, sizeof wanted, ":%04X 0100007F:%04X 01 ", a.port(),
                      ntohs(own.sin_port));
        return content("/proc/net/tcp").find(wanted) != std::string::npos;
    }

    std::atomic<long long> longest_ms_{0};
    std::atomic<long long> longest_change_ms_{0}; // while a list is loaded
    std::atomic<int> vanished_{0};                // and let go
    TCP_CMD_MSG unused_;
};

void Soak::soak() {
    const char* wanted = std::getenv("KESSARD_SOAK_SEC");
    const long long until_ms =
        agt::monotonic_ms() + (wanted == nullptr ? 60 : std::atoll(wanted)) * 1000;
    start_running(a);
    expect_all();
    reconnect();
    std::atomic<bool> over{false};
    std::thread neighbours[] = {std::thread([&] { ask_on(over); }),
                                std::thread([&] { drip_on(over); }),
                                std::thread([&] { vanish_on(over); })};
    figures first{};
    for (int round = 0; round < 2 || (agt::monotonic_ms() + ROUND_MS < until_ms && !HasFailure());
         ++round) {
        const int count = run_round();
        run_spoilt_round();
        std::filesystem::remove(a.path("svc_update"));
        figures now{};
        const bool settled = wait_until([&] {
            now = look();
            return now.processes == 0 && now.threads == THREADS &&
                   (round == 0 || now.files <= first.files + 3); // health check, two neighbours
        });
        std::cout << "round " << round << ": " << count << " exchanges, RssAnon " << now.anon_kb
                  << " KB, files " << now.files << ", threads " << now.threads << ", children "
                  << now.processes << ", longest answer " << longest_ms_
                  << " ms, while a list loads " << longest_change_ms_ << " ms, vanished "
                  << vanished_ << std::endl;
        if (round == 0)
            first = now;
        EXPECT_TRUE(settled);
        EXPECT_LE(now.anon_kb, first.anon_kb + MEMORY_BOUND_KB);
        server.forget_messages();
        if (!HasFailure())
            empty_log();
    }
    over = true;
    for (std::thread& one : neighbours)
        one.join();
    EXPECT_LT(longest_ms_, wanted == nullptr ? BUSY_ANSWER_MS : 1000);
    EXPECT_EQ(a.stop(8000), 0);
}

TEST_F(Soak, HoldsNoMoreThanAfterItsFirstRound) {
    soak();
}

TEST_F(Soak, HoldsNoMoreThanAfterItsFirstRoundOverTls) {
    const authority ca(a);
    ca.secure(a, server, client);
    ca.issue("agent", "DNS:agent.example,IP:127.0.0.1"); // which the console has, too
    a.set("TLS", "PEER_NAMES", "agent.example,operator.example");
    identity = ca.identity("operator");
    soak();
}

} // namespace
