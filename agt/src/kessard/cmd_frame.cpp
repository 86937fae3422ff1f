// Frames of the command port.
//
// A frame comes whole or in parts. Between two parts there may be a pause of a second; behind a
// longer one what had come is dropped and the frame starts over with what comes next, for which
// there is one more second. The whole, with all such starts, has ten seconds. Standard output says
// how a part was completed or dropped.
#include "cmd_frame.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "log_printf.h"
#include "util.h"
#include "wait.h"

namespace kessard {
namespace {

constexpr long long PAUSE_MS = 1000;
constexpr long long WHOLE_MS = 10000;

} // namespace

void cmd_frame::start(int sockfd) {
    sockfd_ = sockfd;
    state_ = state::gathering;
    got_ = 0;
    begun_ = false;
    waiting_since_ms = 0;
    wait_logged = false;
}

void cmd_frame::gather() {
    const int missing = TCP_CMD_MSG_SIZE - got_;
    const auto came = static_cast<int>(recv(sockfd_, reinterpret_cast<char*>(&message_) + got_,
                                            static_cast<std::size_t>(missing), MSG_DONTWAIT));
    if (came < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (got_ > 0 && came < 1)
        agt::say("read error!!, add_len : %d", came);
    if (got_ > 0 && came == missing)
        agt::say("#%d bytes are added!\n", missing);
    if (came < 1 || came == missing) {
        state_ = came < 1 ? state::over : state::complete;
        return;
    }
    got_ += came;
    latest_ms_ = agt::monotonic_ms();
    if (!begun_)
        start_ms_ = latest_ms_;
    begun_ = true;
}

void cmd_frame::check_time(long long now_ms) {
    if (state_ != state::gathering || !begun_)
        return;
    if (now_ms - start_ms_ >= WHOLE_MS) {
        agt::log_printf("<!> cmd_event frame not complete in time, sockfd : %d, rlen : %d", sockfd_,
                        got_);
        state_ = state::over;
    } else if (now_ms - latest_ms_ >= PAUSE_MS && got_ > 0) {
        agt::say("read error!!, add_len : %d", -1);
        got_ = 0;
        latest_ms_ = now_ms;
    } else if (now_ms - latest_ms_ >= PAUSE_MS) {
        state_ = state::over;
    }
}

int cmd_frame::left_ms(long long now_ms, int most) const {
    if (state_ != state::gathering || !begun_)
        return most;
    const long long until_ms = std::min(start_ms_ + WHOLE_MS, latest_ms_ + PAUSE_MS);
    return static_cast<int>(std::clamp<long long>(until_ms - now_ms, 0, most));
}

} // namespace kessard
