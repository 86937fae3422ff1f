// Certificates: the files of a program, the names that a certificate carries.
#pragma once

#include <openssl/ssl.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "tls_calls.h"

namespace agt {

template <auto Free> struct openssl_deleter {
    template <class T> void operator()(T* object) const { Free(object); }
};
using ssl_ctx_ptr = std::unique_ptr<SSL_CTX, openssl_deleter<SSL_CTX_free>>;
using x509_ptr = std::unique_ptr<X509, openssl_deleter<X509_free>>;

struct tls_context {
    ssl_ctx_ptr ssl_ctx;
    std::time_t expires;
};

// Take what tls_calls says of the calls of these names.
tls_context* load_context(const tls_files& files, std::string* error);
std::time_t file_expires(const char* cert_file, std::string* error);

// The text of the first error of OpenSSL in this thread since the last ERR_clear_error(),
// `otherwise` when there is none.
std::string openssl_error(const std::string& otherwise);

// The first alternative name of a certificate, else its common name, control bytes escaped.
std::string name_of(const X509* certificate);

// Whether a certificate carries one of the names: as an alternative name (DNS, IP), or, where it
// has none of any kind, as its common name. `wildcards` accepts "*.example.com".
bool carries_name(X509* certificate, const std::vector<std::string>& names, bool wildcards);

} // namespace agt
