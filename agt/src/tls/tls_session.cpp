// Sessions of TLS on sockets that stay blocking: the library reads and writes through functions of
// its own here, which never wait and raise no signal.
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "certificates.h"
#include "openssl_lock.h"

namespace agt {

using ssl_ptr = std::unique_ptr<SSL, openssl_deleter<SSL_free>>;

struct tls_session {
    int sockfd = -1;
    tls_side side = tls_side::accepts;
    std::vector<std::string> names;
    ssl_ptr ssl;
    bool dry = false;  // the socket had nothing left when it was last read
    bool over = false; // nothing more comes: announced, or broken
    bool broken = false;
    bool shaken = false; // the handshake is done
    int error = 0;       // errno of the socket
    short awaited = POLLIN;
    std::string failure;
};

namespace {

constexpr std::size_t RECORD_BYTES = 16384;

BIO_METHOD* socket_method = nullptr;

tls_session* session_of(BIO* bio) {
    return static_cast<tls_session*>(BIO_get_data(bio));
}

// What follows a call of the socket, for the library.
int done(BIO* bio, ssize_t ret) {
    BIO_clear_retry_flags(bio);
    session_of(bio)->error = ret < 0 ? errno : 0;
    return static_cast<int>(ret);
}

int read_socket(BIO* bio, char* out, int length) {
    tls_session* session = session_of(bio);
    ssize_t ret;
    do
        ret = recv(session->sockfd, out, static_cast<std::size_t>(length), MSG_DONTWAIT);
    while (ret < 0 && errno == EINTR);
    done(bio, ret);
    session->dry = ret < 0 && session->error == EAGAIN;
    if (session->dry)
        BIO_set_retry_read(bio);
    return static_cast<int>(ret);
}

int write_socket(BIO* bio, const char* bytes, int length) {
    tls_session* session = session_of(bio);
    ssize_t ret;
    do
        ret = send(session->sockfd, bytes, static_cast<std::size_t>(length),
                   MSG_DONTWAIT | MSG_NOSIGNAL);
    while (ret < 0 && errno == EINTR);
    done(bio, ret);
    if (ret < 0 && session->error == EAGAIN)
        BIO_set_retry_write(bio);
    return static_cast<int>(ret);
}

long control_socket(BIO*, int command, long, void*) {
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

// The peer's certificate, which the library has judged: a name is still to be found in it. Returns
// what the library is to go on with.
int judge(int good, X509_STORE_CTX* store) {
    const auto* ssl =
        static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto* session = static_cast<tls_session*>(SSL_get_app_data(ssl));
    X509* certificate = X509_STORE_CTX_get_current_cert(store);
    const bool named =
        X509_STORE_CTX_get_error_depth(store) > 0 || session->names.empty() ||
        carries_name(certificate, session->names, session->side == tls_side::connects);
    if (good == 1 && named)
        return 1;
    if (good == 1)
        X509_STORE_CTX_set_error(store, X509_V_ERR_HOSTNAME_MISMATCH);
    session->failure = good == 1 ? "no accepted name"
                                 : X509_verify_cert_error_string(X509_STORE_CTX_get_error(store));
    if (certificate != nullptr)
        session->failure += ", certificate of " + name_of(certificate);
    return 0;
}

// In the words of an operator, where the library's are none.
std::string reason_of_failure() {
    switch (ERR_GET_REASON(ERR_peek_error())) {
    case SSL_R_PEER_DID_NOT_RETURN_A_CERTIFICATE:
        return "no certificate";
    case SSL_R_WRONG_VERSION_NUMBER:
    case SSL_R_HTTP_REQUEST:
    case SSL_R_HTTPS_PROXY_REQUEST:
        return "no TLS";
    default:
        return openssl_error("the connection was cut off");
    }
}

// Keeps the first reason; errno is the socket's, where that failed. A connection that is merely cut
// off behind the handshake has none.
tls_step judge_failure(tls_session* session, int kind) {
    const bool of_socket = kind == SSL_ERROR_SYSCALL && session->error != 0;
    session->over = true;
    session->broken = true;
    if (session->failure.empty() && (kind == SSL_ERROR_SSL || !session->shaken))
        session->failure = of_socket ? std::strerror(session->error) : reason_of_failure();
    errno = of_socket ? session->error : kind == SSL_ERROR_SSL ? EPROTO : ECONNRESET;
    return tls_step::failed;
}

// What a call that returned `ret`, below 1, comes to; errno says why it failed.
tls_step judge_return(tls_session* session, int ret) {
    switch (SSL_get_error(session->ssl.get(), ret)) {
    case SSL_ERROR_WANT_READ:
        session->awaited = POLLIN;
        errno = EAGAIN;
        return tls_step::waits;
    case SSL_ERROR_WANT_WRITE:
        session->awaited = POLLOUT;
        errno = EAGAIN;
        return tls_step::waits;
    case SSL_ERROR_ZERO_RETURN:
        session->over = true;
        return tls_step::done;
    default:
        return judge_failure(session, SSL_get_error(session->ssl.get(), ret));
    }
}

bool start_library() {
    socket_method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "socket");
    openssl_guard::hold_at_fork();
    // Threads may be inside of it when the process exits.
    return socket_method != nullptr && OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1 &&
           BIO_meth_set_read(socket_method, read_socket) == 1 &&
           BIO_meth_set_write(socket_method, write_socket) == 1 &&
           BIO_meth_set_ctrl(socket_method, control_socket) == 1;
}

const bool started = start_library();

// ---- the calls

tls_context* load(const tls_files& files, std::string* error) {
    const openssl_guard guard;
    *error = "OpenSSL cannot be started";
    if (!started)
        return nullptr;
    tls_context* context = load_context(files, error);
    if (context != nullptr)
        SSL_CTX_set_verify(context->ssl_ctx.get(),
                           SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, judge);
    return context;
}

void unload(tls_context* context) {
    const openssl_guard guard;
    const std::unique_ptr<tls_context> owned(context);
}

std::time_t expires(const tls_context* context) {
    return context->expires;
}

std::time_t expires_in_file(const char* cert_file, std::string* error) {
    const openssl_guard guard;
    return file_expires(cert_file, error);
}

tls_session* begin(tls_context* context, int sockfd, tls_side side,
                   const std::vector<std::string>& names) {
    const openssl_guard guard;
    auto session = std::make_unique<tls_session>();
    session->sockfd = sockfd;
    session->side = side;
    session->names = names;
    session->ssl.reset(SSL_new(context->ssl_ctx.get()));
    BIO* bio = BIO_new(socket_method);
    if (session->ssl == nullptr || bio == nullptr)
        return nullptr;
    BIO_set_data(bio, session.get());
    BIO_set_init(bio, 1);
    SSL* ssl = session->ssl.get();
    SSL_set_bio(ssl, bio, bio);
    SSL_set_app_data(ssl, session.get());
    if (side == tls_side::accepts)
        SSL_set_accept_state(ssl);
    else
        SSL_set_connect_state(ssl);
    return session.release();
}

tls_step shake_hands(tls_session* session) {
    const openssl_guard guard;
    ERR_clear_error();
    const int ret = SSL_do_handshake(session->ssl.get());
    session->shaken = ret == 1;
    if (session->shaken)
        return tls_step::done;
    const tls_step step = judge_return(session, ret);
    return step == tls_step::waits ? step : tls_step::failed;
}

ssize_t receive(tls_session* session, void* buffer, std::size_t length, int flags) {
    const openssl_guard guard;
    ERR_clear_error();
    const auto read = (flags & MSG_PEEK) != 0 ? SSL_peek : SSL_read;
    const int most = static_cast<int>(std::min<std::size_t>(length, INT_MAX));
    const int got = read(session->ssl.get(), buffer, most);
    return got > 0 ? got : judge_return(session, got) == tls_step::done ? 0 : -1;
}

// Small parts leave in one record. A call that is tried again behind EAGAIN has the same bytes.
ssize_t send(tls_session* session, const iovec* parts, std::size_t count) {
    while (count > 0 && parts->iov_len == 0) {
        ++parts;
        --count;
    }
    if (count == 0)
        return 0;
    char record[RECORD_BYTES];
    const void* bytes = parts->iov_base;
    std::size_t length = parts->iov_len;
    if (count > 1) {
        bytes = record;
        length = 0;
        for (; count > 0 && length < sizeof record; ++parts, --count) {
            const std::size_t piece = std::min(parts->iov_len, sizeof record - length);
            if (piece > 0)
                std::memcpy(record + length, parts->iov_base, piece);
            length += piece;
        }
    }
    const openssl_guard guard;
    ERR_clear_error();
    const int sent = SSL_write(session->ssl.get(), bytes,
                               static_cast<int>(std::min<std::size_t>(length, INT_MAX)));
    return sent > 0 ? sent : judge_return(session, sent) == tls_step::done ? 0 : -1;
}

short awaited(const tls_session* session) {
    return session->awaited;
}

bool is_pending(const tls_session* session) {
    return session->over || (!session->dry && SSL_has_pending(session->ssl.get()) == 1);
}

bool has_part(const tls_session* session) {
    return session->dry && SSL_has_pending(session->ssl.get()) == 1;
}

void end(tls_session* session, bool politely) {
    const openssl_guard guard;
    const std::unique_ptr<tls_session> owned(session);
    ERR_clear_error();
    if (politely && !session->broken)
        SSL_shutdown(session->ssl.get());
}

std::string peer_name(const tls_session* session) {
    const openssl_guard guard;
    const X509* certificate = SSL_get0_peer_certificate(session->ssl.get());
    return certificate == nullptr ? "" : name_of(certificate);
}

std::string failure(const tls_session* session) {
    return session->failure;
}

} // namespace
} // namespace agt

extern "C" [[gnu::visibility("default")]] const agt::tls_calls kessard_tls_calls;
const agt::tls_calls kessard_tls_calls = {
    agt::load,        agt::unload,  agt::expires,   agt::expires_in_file, agt::begin,
    agt::shake_hands, agt::receive, agt::send,      agt::awaited,         agt::is_pending,
    agt::has_part,    agt::end,     agt::peer_name, agt::failure};
