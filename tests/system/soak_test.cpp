// Everything at once, in rounds; between them the daemon may hold no more than after the first.
// KESSARD_SOAK_SEC says for how long, a minute otherwise.
#include "exchanges.h"

namespace {

using namespace test_support;

constexpr int ROUND_MS = 6000;
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

    // Runs each kind of exchange again and again; how many there were.
    int run_round() {
        std::atomic<int> count{0};
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
        return count;
    }
};

TEST_F(Soak, HoldsNoMoreThanAfterItsFirstRound) {
    const char* wanted = std::getenv("KESSARD_SOAK_SEC");
    const long long until_ms =
        agt::monotonic_ms() + (wanted == nullptr ? 60 : std::atoll(wanted)) * 1000;
    start_running(a);
    expect_all();
    figures first{};
    for (int round = 0; round < 2 || (agt::monotonic_ms() + ROUND_MS < until_ms && !HasFailure());
         ++round) {
        const int count = run_round();
        std::filesystem::remove(a.path("svc_update"));
        figures now{};
        const bool settled = wait_until([&] {
            now = look();
            return now.processes == 0 && now.threads == THREADS &&
                   (round == 0 || now.files <= first.files + 1); // the health check's connection
        });
        std::cout << "round " << round << ": " << count << " exchanges, RssAnon " << now.anon_kb
                  << " KB, files " << now.files << ", threads " << now.threads << ", children "
                  << now.processes << std::endl;
        if (round == 0)
            first = now;
        EXPECT_TRUE(settled);
        EXPECT_LE(now.anon_kb, first.anon_kb + MEMORY_BOUND_KB);
        server.forget_messages();
        empty_log();
    }
    EXPECT_EQ(a.stop(8000), 0);
}

} // namespace
