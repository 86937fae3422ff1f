// What the module kessard_tls.so does for the programs that load it: files, handshakes, bytes. It
// waits for nothing and logs nothing; every call that would have to wait says so.
//
// No call of one session while another runs on it. Calls of different sessions and contexts may run
// in several threads, and a session goes on in a forked child: the process forks only while no
// thread is inside of a call.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <ctime>
#include <string>
#include <vector>

namespace agt {

struct tls_context; // a certificate, its key and who may sign a peer's, as the files had them
struct tls_session; // one connection

struct tls_files {
    std::string cert; // PEM, followed by those between it and `ca`
    std::string key;  // PEM
    std::string ca;   // PEM, one or more certificates and revocation lists
};

enum class tls_side { accepts, connects };

enum class tls_step { done, waits, failed };

struct tls_calls {
    // Null, with a reason in *error, for files that cannot be used: unreadable, a key that others
    // may read or that does not fit, a certificate that is not valid now or that `ca` did not sign.
    tls_context* (*load)(const tls_files& files, std::string* error);
    void (*unload)(tls_context* context);
    // When the certificate of a context, or of a file, is valid no more. A file without one: 0 and
    // *error.
    std::time_t (*expires)(const tls_context* context);
    std::time_t (*file_expires)(const char* cert_file, std::string* error);

    // A session on a connected socket, which stays the caller's. With `names` the peer's
    // certificate must carry one of them. Null without memory.
    tls_session* (*begin)(tls_context* context, int sockfd, tls_side side,
                          const std::vector<std::string>& names);
    // One step of the handshake, `awaited` saying what the next one waits for. A peer that failed
    // has its alert; failure() says why.
    tls_step (*shake_hands)(tls_session* session);
    // Like recv() and sendmsg() without waiting: EAGAIN, and `awaited` says for what. An end of the
    // connection that the peer did not announce is ECONNRESET, a broken protocol EPROTO. `flags`
    // may be MSG_PEEK.
    ssize_t (*receive)(tls_session* session, void* buffer, std::size_t length, int flags);
    ssize_t (*send)(tls_session* session, const iovec* parts, std::size_t count);
    // The poll event for which the last call that gave EAGAIN waits.
    short (*awaited)(const tls_session* session);
    // Whether receive() may have something to say although the socket is not readable.
    bool (*is_pending)(const tls_session* session);
    // Whether a part of a record has come whose rest has not.
    bool (*has_part)(const tls_session* session);
    // Ends the session; `politely` says so to the peer.
    void (*end)(tls_session* session, bool politely);

    // The peer's certificate by its first alternative name, else its common name, control bytes
    // escaped; empty without one.
    std::string (*peer_name)(const tls_session* session);
    // Why the handshake or the peer ended the session; empty when they did not.
    std::string (*failure)(const tls_session* session);
};

inline constexpr char TLS_MODULE[] = "kessard_tls.so";
inline constexpr char TLS_CALLS_SYMBOL[] = "kessard_tls_calls"; // a tls_calls

} // namespace agt
