// Frames of the command port, gathered as their bytes come, so that no connection keeps another one
// waiting. Used by the main thread alone.
#pragma once

#include "kessard/cmd_msg.h"

namespace kessard {

// What one connection has sent of its next request.
class cmd_frame {
  public:
    enum class state {
        gathering, // nothing yet, or a part
        complete,
        over // the connection is to be dropped
    };

    // The frame of a new connection.
    void start(int sockfd);

    int sockfd() const { return sockfd_; }
    state now() const { return state_; }
    TCP_CMD_MSG& message() { return message_; }

    // Takes what has arrived, without waiting. A part that breaks off is over.
    void gather();

    // Judges a frame of which a part is there: a pause of more than a second drops the part, a
    // second one is the end of the connection, and so is the limit of the whole, which is logged.
    void check_time(long long now_ms);

    // Milliseconds until check_time has something to do, at most `most`.
    int left_ms(long long now_ms, int most) const;

    // The request has been carried out; the next one may come.
    void done() { start(sockfd_); }

    // When a request that could not be carried out yet was first tried, 0 for any other.
    long long waiting_since_ms = 0;
    bool wait_logged = false;

  private:
    int sockfd_ = -1;
    state state_ = state::gathering;
    int got_ = 0;             // bytes of message_
    bool begun_ = false;      // bytes have come, even if a pause dropped them
    long long start_ms_ = 0;  // when the first of them came
    long long latest_ms_ = 0; // when the last one came, or what was there was dropped
    TCP_CMD_MSG message_{};
};

} // namespace kessard
