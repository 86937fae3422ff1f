// Rows: a settings request and large files over TLS, against bare OpenSSL. The other end of both
// sides is the console's.
#include <fcntl.h>

#include <cmath>

#include "certificates.h"
#include "rows.h"
#include "settings_request.h"
#include "transfer.h"
#include "util.h"

namespace bench {
namespace {

constexpr int ROUNDS = 51;
constexpr int EXCHANGES = 200; // of one sample
constexpr int TRANSFER_ROUNDS = 5;

std::vector<char> piece(PIECE_BYTES);

// A daemon whose connections are TLS.
struct tls_agent {
    kessctl::stand_in server;
    test_support::agent program;
    kessctl::command_client client; // may command it
    test_support::authority ca{program};

    tls_agent() {
        ca.secure(program, server, client);
        log_end log(program);
        program.start();
        log.wait_us("start... running");
    }
    std::string file(const std::string& name) const { return program.path("tls/" + name); }
    bool connect(int port) { return client.connect("127.0.0.1", port); }
    bool connect() { return connect(program.port()); }
};

class bare_tls {
  public:
    bare_tls(const tls_agent& of, const test_support::texts& work) : program_(words(of, work), {}) {
        test_support::wait_until([this] { return program_.out().ends_with('\n'); });
    }
    int port() const { return std::atoi(program_.out().c_str()); }

  private:
    static test_support::texts words(const tls_agent& of, const test_support::texts& work) {
        test_support::texts all = {KESSARD_BARE_TLS, of.file("agent.crt"), of.file("agent.key"),
                                   of.file("ca.crt")};
        all.insert(all.end(), work.begin(), work.end());
        return all;
    }
    test_support::process program_;
};

double request_us(kessctl::command_client& client, const TCP_CMD_MSG& request) {
    TCP_CMD_MSG answer;
    const double start_us = now_us();
    for (int i = 0; i < EXCHANGES; ++i)
        if (interrupted() || !client.send(request) || !client.receive_bytes(&answer, sizeof answer))
            return NAN;
    return (now_us() - start_us) / EXCHANGES;
}

figure request_figure(tls_agent& agent) {
    const bare_tls echo(agent, {});
    kessctl::command_client bare;
    bare.use_tls(agent.ca.identity("operator"), "agent.example");
    const bool connected = agent.connect() && bare.connect("127.0.0.1", echo.port());
    const TCP_CMD_MSG request = settings_request();
    return compare(
        {"settings request over TLS", "us", judged::ratio, 1.3}, ROUNDS,
        [&] { return connected ? request_us(agent.client, request) : NAN; },
        [&] { return connected ? request_us(bare, request) : NAN; });
}

bool bare_upload(kessctl::command_client& client, const places& at) {
    const agt::unique_fd file(open(at.source.c_str(), O_RDONLY | O_CLOEXEC));
    for (ssize_t got = 0; (got = read(file.get(), piece.data(), piece.size())) > 0;)
        if (!client.send_bytes(piece.data(), static_cast<std::size_t>(got)))
            return false;
    return client.wait_closed(TRANSFER_LIMIT_MS);
}

bool bare_download(kessctl::command_client& client, const places& at) {
    const agt::unique_fd file(open(at.stored.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    for (std::size_t done = 0; done < FILE_BYTES; done += piece.size())
        if (!client.receive_bytes(piece.data(), piece.size(), TRANSFER_LIMIT_MS) ||
            !agt::write_whole(file.get(), piece.data(), piece.size()))
            return false;
    return true;
}

} // namespace

figures tls_row(running_agent&) {
    tls_agent agent;
    const places at = make_places(agent.program);
    const bare_tls store(agent, {at.stored, std::to_string(FILE_BYTES)});
    const bare_tls fetch(agent, {at.source});
    const auto own = [&](auto transfer) {
        return rate(at, [&] { return agent.connect() && transfer(agent.client, at, {}); });
    };
    const auto bare = [&](const bare_tls& peer, auto transfer) {
        return rate(at, [&] { return agent.connect(peer.port()) && transfer(agent.client, at); });
    };
    return {request_figure(agent),
            compare(
                {"256 MiB to the daemon over TLS", "MiB/s", judged::ratio, 1 / 1.3, true},
                TRANSFER_ROUNDS, [&] { return own(upload); },
                [&] { return bare(store, bare_upload); }),
            compare(
                {"256 MiB from the daemon over TLS", "MiB/s", judged::ratio, 1 / 1.3, true},
                TRANSFER_ROUNDS, [&] { return own(download); },
                [&] { return bare(fetch, bare_download); })};
}

} // namespace bench
