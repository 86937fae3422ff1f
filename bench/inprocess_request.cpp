// A settings request from the first byte read to the last log line, its server on the same thread,
// against the same four transfers with nothing in between.
#include <sys/socket.h>
#include <unistd.h>

#include "client.h"
#include "cmd_event.h"
#include "inprocess.h"
#include "measure.h"
#include "settings_request.h"
#include "tran_logf_que_info.h"
#include "unique_fd.h"

namespace bench {
namespace {

struct connection {
    agt::unique_fd server;
    agt::unique_fd daemon;
};

connection connect() {
    int ends[2] = {-1, -1};
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
    return {agt::unique_fd(ends[0]), agt::unique_fd(ends[1])};
}

void answer_request(benchmark::State& state) {
    static TRAN_LOGF_QUE_INFO settings;
    kessard::que_info = &settings;
    const TCP_CMD_MSG request = settings_request();
    TCP_CMD_MSG answer;
    const connection both = connect();
    const kessard::CMD_CLIENT client = {both.daemon.get(), {}, 0};
    for ([[maybe_unused]] const auto& round : state) {
        send_all(both.server.get(), &request, sizeof request);
        kessard::cmd_event(&client);
        if (!receive_all(both.server.get(), &answer, sizeof answer))
            state.SkipWithError("no answer");
    }
    empty_log();
}

void echo(benchmark::State& state) {
    TCP_CMD_MSG frame = settings_request();
    const connection both = connect();
    for ([[maybe_unused]] const auto& round : state)
        if (write(both.server.get(), &frame, sizeof frame) < 1 ||
            read(both.daemon.get(), &frame, sizeof frame) < 1 ||
            write(both.daemon.get(), &frame, sizeof frame) < 1 ||
            read(both.server.get(), &frame, sizeof frame) < 1)
            state.SkipWithError("no answer");
}

} // namespace

void add_request_benchmarks() {
    benchmark::RegisterBenchmark("request/settings/kessard", answer_request);
    benchmark::RegisterBenchmark("request/settings/bare", echo);
}

} // namespace bench
