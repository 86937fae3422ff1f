// The TCP helpers: whole frames or nothing, limits, cancellation, peers that go or stall.
#include "tcp_base.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <cerrno>
#include <numeric>
#include <thread>

#include "full_listener.h"
#include "process.h"

namespace {

using agt::unique_fd;
using test_support::wait_until;

constexpr int FRAME = 1407;

int port_of(int sockfd) {
    sockaddr_in own{};
    socklen_t size = sizeof own;
    getsockname(sockfd, reinterpret_cast<sockaddr*>(&own), &size);
    return ntohs(own.sin_port);
}

// Standard output, unbuffered, in memory until the object goes.
class stdout_capture {
  public:
    stdout_capture() : file_(memfd_create("stdout", MFD_CLOEXEC)), saved_(dup(1)) {
        std::fflush(stdout);
        std::setvbuf(stdout, nullptr, _IONBF, 0);
        dup2(file_.get(), 1);
    }
    ~stdout_capture() { dup2(saved_.get(), 1); }
    std::string text() const {
        char bytes[4096];
        const ssize_t length = pread(file_.get(), bytes, sizeof bytes, 0);
        return std::string(bytes, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    }

  private:
    unique_fd file_;
    unique_fd saved_;
};

class Tcp : public testing::Test {
  protected:
    unique_fd listener{agt::create_tcp_server_session("127.0.0.1", 0)};
    unique_fd client{agt::create_tcp_client_session("localhost", port_of(listener.get()), 0)};
    unique_fd server;
    std::string frame = std::string(FRAME, '\0');
    char received[FRAME] = {};

    Tcp() {
        sockaddr_in peer{};
        server.reset(agt::accept_tcpserver_connection(listener.get(), &peer));
        EXPECT_EQ(ntohs(peer.sin_port), port_of(client.get()));
        std::iota(frame.begin(), frame.end(), '\1');
    }

    void send(std::size_t from, std::size_t count) {
        EXPECT_EQ(::send(client.get(), frame.data() + from, count, MSG_NOSIGNAL), static_cast<ssize_t>(count));
    }
    // The server's side has taken everything that was sent.
    bool taken() const {
        int unread = -1;
        int unsent = -1;
        ioctl(client.get(), TIOCOUTQ, &unsent);
        ioctl(server.get(), FIONREAD, &unread);
        return unsent == 0 && unread == 0;
    }
    std::string got() const { return std::string(received, FRAME); }
};

TEST_F(Tcp, EndsTheProcessWithoutItsListeningSocket) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(agt::create_tcp_server_session("127.0.0.1", port_of(listener.get())), testing::ExitedWithCode(1), "");
    sockaddr_in peer{};
    EXPECT_EXIT(agt::accept_tcpserver_connection(client.get(), &peer), testing::ExitedWithCode(1), "");
}

TEST_F(Tcp, ReceivesWholeFramesInPieces) {
    stdout_capture out;
    std::thread sender([this] {
        send(0, 700);
        EXPECT_TRUE(wait_until([this] { return taken(); }));
        send(700, 707);
        send(0, FRAME);
    });
    EXPECT_EQ(agt::recv_tcp_data_timeout(server.get(), received, FRAME, 10), FRAME);
    sender.join();
    EXPECT_EQ(got(), frame);
    EXPECT_EQ(out.text(), "#707 bytes are added!\n");
    EXPECT_EQ(agt::recv_tcp_data(server.get(), received, FRAME), FRAME);
    EXPECT_EQ(out.text(), "#707 bytes are added!\n");
}

TEST_F(Tcp, StartsOverWhenTheRestDoesNotCome) {
    stdout_capture out;
    send(0, 700);
    std::thread sender([&] {
        EXPECT_TRUE(wait_until([&] { return out.text() == "read error!!, add_len : -1"; }));
        send(0, FRAME);
        send(0, 700); // of a frame that the peer does not finish
        shutdown(client.get(), SHUT_WR);
    });
    EXPECT_EQ(agt::recv_tcp_data_timeout(server.get(), received, FRAME, 10), FRAME);
    EXPECT_EQ(got(), frame);
    EXPECT_EQ(agt::recv_tcp_data_timeout(server.get(), received, FRAME, 10), 0);
    EXPECT_TRUE(out.text().ends_with("read error!!, add_len : 0"));
    EXPECT_EQ(agt::recv_tcp_data(server.get(), received, FRAME), 0);
    sender.join();
}

TEST_F(Tcp, LimitsEveryReception) {
    const timeval short_limit = {0, 50000};
    setsockopt(server.get(), SOL_SOCKET, SO_RCVTIMEO, &short_limit, sizeof short_limit);
    EXPECT_EQ(agt::recv_tcp_data_timeout(server.get(), received, FRAME, 0), -2);
    EXPECT_EQ(agt::recv_tcp_data(server.get(), received, FRAME), -1);
    stdout_capture out;
    send(0, 700); // a stall
    EXPECT_EQ(agt::recv_tcp_data_timeout(server.get(), received, FRAME, 10), -1);
    std::atomic<bool> over{false};
    std::thread sender([&] { // a trickle that never stalls
        while (!over && ::send(client.get(), "x", 1, MSG_NOSIGNAL) == 1)
            agt::sleep_ms(5);
    });
    const long long start_ms = agt::monotonic_ms();
    EXPECT_EQ(agt::recv_tcp_data_timeout(server.get(), received, 4000, 1), -1);
    EXPECT_LT(agt::monotonic_ms() - start_ms, 5000);
    over = true;
    sender.join();
}

TEST_F(Tcp, EndsItsWaitsWhenCancelled) {
    const unique_fd cancel(eventfd(1, EFD_CLOEXEC));
    const timeval no_limit = {0, 0};
    setsockopt(server.get(), SOL_SOCKET, SO_RCVTIMEO, &no_limit, sizeof no_limit);
    test_support::full_listener full;
    full.fill_up();
    std::string much(64 << 20, 'x');
    std::thread thread([&] {
        agt::set_cancel_fd(cancel.get());
        EXPECT_EQ(agt::recv_tcp_data(server.get(), received, FRAME), -1);
        EXPECT_EQ(errno, ECANCELED);
        EXPECT_EQ(agt::recv_tcp_data_timeout(server.get(), received, FRAME, 60), -1);
        EXPECT_EQ(agt::create_tcp_client_session("127.0.0.1", full.port(), 0), -1);
        EXPECT_EQ(agt::send_tcp_data(server.get(), much.data(), static_cast<int>(much.size())), -1);
    });
    thread.join();
}

TEST_F(Tcp, SendsEverythingOrReportsThePeerGone) {
    std::string sent(5 << 20, '\0');
    std::iota(sent.begin(), sent.end(), '\0');
    std::string arrived(sent.size() + 4, '\0');
    std::thread reader([&] {
        const auto length = static_cast<int>(arrived.size());
        EXPECT_EQ(agt::recv_tcp_data(client.get(), arrived.data(), length), length);
    });
    EXPECT_EQ(agt::send_tcp_data2(server.get(), "head", 4, sent.data(), static_cast<int>(sent.size())),
              static_cast<int>(arrived.size()));
    reader.join();
    EXPECT_TRUE(arrived == "head" + sent);
    EXPECT_EQ(agt::send_tcp_data2(server.get(), "", 0, "x", 1), 1);
    const linger reset = {1, 0};
    setsockopt(client.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    client.reset();
    int ret = 0;
    EXPECT_TRUE(wait_until([&] { return (ret = agt::send_tcp_data(server.get(), "x", 1)) < 1; }));
    EXPECT_EQ(ret, -1);
    EXPECT_EQ(agt::send_tcp_data(server.get(), "x", 1), -1); // without a signal
}

TEST_F(Tcp, ChecksTheMagicAndTheEndOfAConnection) {
    EXPECT_EQ(agt::magic_bit_check(-1, "\x90\x85\x20\x83rest"), 1);
    for (const char* wrong : {"\x91\x85\x20\x83", "\x90\x84\x20\x83", "\x90\x85\x21\x83", "\x90\x85\x20\x03"})
        EXPECT_EQ(agt::magic_bit_check(-1, wrong), 0);
    frame = "\x90\x85\x20\x83oops\x90";
    send(0, 9);
    EXPECT_EQ(agt::magic_bit_check(server.get(), nullptr), 1);
    EXPECT_EQ(agt::magic_bit_check(server.get(), nullptr), 0);
    agt::close_tcp_session(-1);
    agt::close_tcp_session(client.release());
    EXPECT_EQ(agt::magic_bit_check(server.get(), nullptr), -1);
    const int port = port_of(listener.get());
    listener.reset();
    EXPECT_EQ(agt::create_tcp_client_session("127.0.0.1", port, 0), -1);
}

} // namespace
