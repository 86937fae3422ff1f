// Which sockets carry TLS, and reading and writing on either kind.
//
// A table leads from a descriptor to its session, so that everything above works on descriptors,
// whatever they carry. Without a session, which is one branch to find out, the calls below are the
// system's. An entry is used by the thread that uses the descriptor.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <string>

#include "tls_calls.h"
#include "wait.h"

namespace agt {

inline constexpr int TLS_HANDSHAKE_MS = 10000; // longest handshake

// Loads the module, once; its calls, or null with a reason in *error. Before the first thread.
const tls_calls* load_tls_module(std::string* error);

// The same module; null unless it was loaded.
const tls_calls* tls_module();

// Hands a session, whose handshake is done, to its descriptor. False, with the session ended, when
// the table cannot hold the descriptor.
[[nodiscard]] bool set_tls_session(int sockfd, tls_session* session);

// Completes the handshake of a new session, null included, and hands it to its descriptor. False
// with a reason in *why, the session then having ended; the socket stays open.
[[nodiscard]] bool secure_socket(int sockfd, tls_session* session, int limit_ms, std::string* why);

// Ends the session of a descriptor, if it has one; `politely` says so to the peer.
void end_tls_session(int sockfd, bool politely);

// Whether any descriptor has had a session.
inline std::atomic<bool> tls_in_use{false};

// The session of a descriptor, null without one.
tls_session* find_tls_session(int sockfd);
inline tls_session* tls_session_of(int sockfd) {
    return tls_in_use.load(std::memory_order_relaxed) ? find_tls_session(sockfd) : nullptr;
}

// Like recv() and sendmsg() without waiting and without SIGPIPE. `flags` may be MSG_PEEK.
ssize_t recv_now(int sockfd, void* buffer, std::size_t length, int flags = 0);
ssize_t send_now(int sockfd, const msghdr& message);

// Waits until recv_now has something to say.
wait_result wait_data(int sockfd, int limit_ms);

// Waits for `event` behind an EAGAIN, or for what the session needs instead.
wait_result wait_again(int sockfd, short event, int limit_ms);

// Whether recv_now may have something to say although the socket is not readable.
bool has_pending_data(int sockfd);

// Whether a part of a record has come whose rest has not.
bool has_part_of_record(int sockfd);

// Why the descriptor's session failed, empty when it did not; the name of the peer's certificate,
// empty without one.
std::string tls_failure(int sockfd);
std::string tls_peer_name(int sockfd);

} // namespace agt
