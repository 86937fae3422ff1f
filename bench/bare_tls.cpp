// The bare side of the TLS rows: OpenSSL with blocking sockets and nothing else.
//
//     kessard_bare_tls CERT KEY CA               answers every 1407 bytes with 1407 bytes
//     kessard_bare_tls CERT KEY CA FILE BYTES    writes so many bytes to the file
//     kessard_bare_tls CERT KEY CA FILE          sends the file
//
// Each writes its port to standard output and serves one connection after the other, of peers with
// a certificate that CA signed.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "bare_listen.h"

namespace {

constexpr int FRAME_BYTES = 1407;
constexpr int PIECE_BYTES = 1024 * 1024;

char piece[PIECE_BYTES];

void echo(SSL* ssl) {
    int got = 0;
    for (int one = 0; (one = SSL_read(ssl, piece + got, FRAME_BYTES - got)) > 0;) {
        got += one;
        if (got == FRAME_BYTES && SSL_write(ssl, piece, FRAME_BYTES) < 1)
            return;
        got %= FRAME_BYTES;
    }
}

void store(SSL* ssl, const char* file, long left) {
    const int fd = open(file, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    for (int got = 0; left > 0 && (got = SSL_read(ssl, piece, sizeof piece)) > 0; left -= got)
        if (write(fd, piece, static_cast<std::size_t>(got)) != got)
            break;
    close(fd);
}

void fetch(SSL* ssl, const char* file) {
    const int fd = open(file, O_RDONLY);
    for (ssize_t got = 0; (got = read(fd, piece, sizeof piece)) > 0;)
        if (SSL_write(ssl, piece, static_cast<int>(got)) < 1)
            break;
    close(fd);
}

SSL_CTX* make_ctx(char** files) {
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    const bool made = SSL_CTX_use_certificate_chain_file(ctx, files[0]) == 1 &&
                      SSL_CTX_use_PrivateKey_file(ctx, files[1], SSL_FILETYPE_PEM) == 1 &&
                      SSL_CTX_load_verify_file(ctx, files[2]) == 1;
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    SSL_CTX_set_num_tickets(ctx, 0);
    return made ? ctx : nullptr;
}

} // namespace

int main(int argc, char** argv) {
    SSL_CTX* ctx = argc < 4 ? nullptr : make_ctx(argv + 1);
    const int listener = ctx == nullptr ? -1 : bench::listen_somewhere();
    std::signal(SIGPIPE, SIG_IGN);
    for (int sockfd = -1; (sockfd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;
         close(sockfd)) {
        const int nodelay = 1;
        setsockopt(sockfd, IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof nodelay);
        SSL* ssl = SSL_new(ctx);
        SSL_set_fd(ssl, sockfd);
        const bool accepted = SSL_accept(ssl) == 1;
        if (accepted && argc == 4)
            echo(ssl);
        else if (accepted && argc == 6)
            store(ssl, argv[4], std::atol(argv[5]));
        else if (accepted)
            fetch(ssl, argv[4]);
        SSL_shutdown(ssl);
        SSL_free(ssl);
    }
    return 1;
}
