// Support library: clearing shared memory, and receiving whole frames within limits whatever the peer does.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <thread>

#include "agent_fixture.h"
#include "shmem.h"
#include "tcp_base.h"

namespace {

TEST(Library, ClearsExactlyTheBytesAskedFor) {
    constexpr std::size_t SIZE = 5 * 4096;
    test_support::agent keys; // removes what is left under them
    auto* segment = static_cast<char*>(keys.create_shm("SVC_HASH_TBL_SHMKEY", SIZE));
    std::string heap(SIZE, 'x');
    const std::pair<std::size_t, std::size_t> ranges[] = {{0, SIZE},   {1, SIZE - 2}, {4096, 8192}, {100, 50},
                                                          {4000, 200}, {4095, 4098},  {77, 0}};
    for (char* memory : {segment, heap.data()})
        for (const auto& [at, size] : ranges) {
            std::memset(memory, 'x', SIZE);
            agt::clear_shm(memory + at, size);
            std::string wanted(SIZE, 'x');
            wanted.replace(at, size, std::string(size, '\0'));
            EXPECT_TRUE(std::memcmp(memory, wanted.data(), SIZE) == 0) << at << " " << size;
        }
}

TEST(Library, StartsAFrameOverAndLimitsATrickle) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const agt::unique_fd server(ends[0]);
    const agt::unique_fd client(ends[1]);
    const timeval short_limit = {0, 50000};
    setsockopt(server.get(), SOL_SOCKET, SO_RCVTIMEO, &short_limit, sizeof short_limit);
    char received[4000] = {};
    EXPECT_EQ(agt::recv_tcp_data_timeout(server.get(), received, 1407, 0), -2);
    const std::string frame(1407, 'f');
    testing::internal::CaptureStdout();
    EXPECT_EQ(agt::send_tcp_data(client.get(), std::string(700, 'x').data(), 700), 700);
    EXPECT_EQ(agt::recv_tcp_data_timeout(server.get(), received, 1407, 10), -1); // the rest does not come, twice
    EXPECT_TRUE(testing::internal::GetCapturedStdout().starts_with("read error!!, add_len : -1"));
    EXPECT_EQ(agt::send_tcp_data(client.get(), frame.data(), 1407), 1407);
    EXPECT_EQ(agt::recv_tcp_data_timeout(server.get(), received, 1407, 10), 1407);
    EXPECT_EQ(std::string(received, 1407), frame);
    std::atomic<bool> over{false};
    std::thread sender([&] { // never stalls
        while (!over && send(client.get(), "x", 1, MSG_NOSIGNAL) == 1)
            agt::sleep_ms(5);
    });
    const long long start_ms = agt::monotonic_ms();
    EXPECT_EQ(agt::recv_tcp_data_timeout(server.get(), received, sizeof received, 1), -1);
    EXPECT_LT(agt::monotonic_ms() - start_ms, 5000);
    over = true;
    sender.join();
}

TEST(Library, SendsToAPeerThatTakesLittleAtATime) {
    const agt::unique_fd listener(agt::open_tcp_server_session("127.0.0.1", 0));
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    std::thread peer([port = ntohs(address.sin_port)] { // the sender has room again only after more than 10 seconds
        const agt::unique_fd taking(agt::create_tcp_client_session("127.0.0.1", port, 0));
        std::string taken(8000, 0);
        while (recv(taking.get(), taken.data(), taken.size(), MSG_WAITALL) > 0)
            agt::sleep_ms(100);
    });
    agt::unique_fd sender(agt::accept_tcpserver_connection(listener.get(), &address));
    const std::string bytes(5000000, 'b');
    EXPECT_EQ(agt::send_tcp_data(sender.get(), bytes.data(), 5000000), 5000000);
    const linger at_once = {1, 0};
    setsockopt(sender.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    sender.reset();
    peer.join();
}

} // namespace
