// Frames of the command port: the input says how many bytes come, how long nothing comes and when
// the peer hangs up; what the daemon makes of it is compared with the plainest way to say it.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "cmd_frame.h"
#include "harness.h"

extern "C" long long __wrap__ZN3agt12monotonic_msEv();

namespace {

using namespace kessard;
using fuzz::require;
using state = cmd_frame::state;

constexpr std::size_t WHOLE = TCP_CMD_MSG_SIZE;

long long now_ms = 0;

// What should have become of the bytes.
struct expectation {
    std::string waiting; // sent and not taken
    std::string part;    // of the frame
    bool hung_up = false;
    bool begun = false;
    long long first_ms = 0;
    long long latest_ms = 0;
    state now = state::gathering;

    void gather() {
        if (now != state::gathering)
            return;
        const std::size_t taken = std::min(waiting.size(), WHOLE - part.size());
        if (taken == 0 && hung_up)
            now = state::over;
        if (taken == 0)
            return;
        part += waiting.substr(0, taken);
        waiting.erase(0, taken);
        first_ms = begun ? first_ms : now_ms;
        latest_ms = now_ms;
        begun = true;
        if (part.size() == WHOLE)
            now = state::complete;
    }
    void pass_time() {
        if (now != state::gathering || !begun)
            return;
        const bool paused = now_ms - latest_ms >= 1000;
        if (now_ms - first_ms >= 10000 || (paused && part.empty()))
            now = state::over;
        else if (paused) {
            part.clear();
            latest_ms = now_ms;
        }
    }
};

// One end of a connection whose other end the frame reads.
class peer {
  public:
    peer() {
        require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends_) == 0,
                "no socket");
        frame_.start(ends_[0]);
    }
    peer(const peer&) = delete;
    peer& operator=(const peer&) = delete;
    ~peer() {
        close(ends_[0]);
        close(ends_[1]);
    }

    void send(std::size_t count) {
        std::string bytes;
        while (!wanted_.hung_up && bytes.size() < count)
            bytes += static_cast<char>(next_byte_++);
        if (!bytes.empty() && ::send(ends_[1], bytes.data(), bytes.size(), 0) > 0)
            wanted_.waiting += bytes;
    }
    void hang_up() {
        shutdown(ends_[1], SHUT_WR);
        wanted_.hung_up = true;
    }
    // Lets the frame take what is there and look at the time, and compares.
    void look() {
        if (frame_.now() == state::gathering)
            frame_.gather();
        wanted_.gather();
        frame_.check_time(now_ms);
        wanted_.pass_time();
        require(frame_.now() == wanted_.now, "the frame stands otherwise");
        const int left_ms = frame_.left_ms(now_ms, 3000);
        require(left_ms >= 0 && left_ms <= 3000, "a wait out of bounds");
        if (frame_.now() != state::complete)
            return;
        require(std::memcmp(&frame_.message(), wanted_.part.data(), WHOLE) == 0, "other bytes");
        frame_.done();
        wanted_.part.clear();
        wanted_.begun = false;
        wanted_.now = state::gathering;
    }

  private:
    int ends_[2] = {-1, -1};
    unsigned next_byte_ = 0;
    cmd_frame frame_;
    expectation wanted_;
};

} // namespace

long long __wrap__ZN3agt12monotonic_msEv() {
    return now_ms;
}

void fuzz::set_up() {}

void fuzz::run(std::string_view input) {
    now_ms = 1000000;
    peer one;
    for (reader from(input); !from.rest().empty();) {
        const auto what = from.number<std::uint8_t>();
        const auto amount = from.number<std::uint16_t>();
        if (what % 4 == 3)
            one.hang_up();
        else if (what % 4 == 2)
            now_ms += amount % 4000;
        else
            one.send(what % 4 == 1 ? WHOLE : amount % (2 * WHOLE));
        one.look();
    }
}
