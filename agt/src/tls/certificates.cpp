// Certificates: files and names.
#include "certificates.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace agt {
namespace {

// Of TLS 1.2; those of 1.3 are the library's. All are authenticated and keep forward secrecy, and
// none needs random bytes behind the handshake.
constexpr char CIPHERS_1_2[] = "ECDHE+AESGCM:ECDHE+CHACHA20";

constexpr std::size_t NAME_LENGTH = 255; // of which as much is shown

using x509_store_ctx_ptr = std::unique_ptr<X509_STORE_CTX, openssl_deleter<X509_STORE_CTX_free>>;
using general_names_ptr = std::unique_ptr<GENERAL_NAMES, openssl_deleter<GENERAL_NAMES_free>>;
using file_ptr = std::unique_ptr<std::FILE, openssl_deleter<std::fclose>>;
using bio_ptr = std::unique_ptr<BIO, openssl_deleter<BIO_free>>;

// Nobody is there to type it in.
int no_passphrase(char*, int, int, void*) {
    return -1;
}

// Empty, or why the file is none to be read; a FIFO would be waited for.
std::string file_fault(const std::string& path, mode_t forbidden) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0)
        return path + ": " + std::strerror(errno);
    if (!S_ISREG(info.st_mode))
        return path + ": not a regular file";
    if ((info.st_mode & forbidden) != 0)
        return path + ": others than its owner and group may read or write it";
    return {};
}

std::time_t end_of(const X509* certificate) {
    struct tm end {};
    return ASN1_TIME_to_tm(X509_get0_notAfter(certificate), &end) == 1 ? timegm(&end) : 0;
}

ssl_ctx_ptr make_ssl_ctx() {
    ssl_ctx_ptr made(SSL_CTX_new(TLS_method()));
    SSL_CTX* ctx = made.get();
    if (ctx == nullptr || SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION) != 1 ||
        SSL_CTX_set_cipher_list(ctx, CIPHERS_1_2) != 1)
        return nullptr;
    SSL_CTX_set_options(ctx, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_TICKET | SSL_OP_NO_COMPRESSION |
                                 SSL_OP_CIPHER_SERVER_PREFERENCE);
    SSL_CTX_set_num_tickets(ctx, 0); // every connection shows its certificate
    SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_OFF);
    SSL_CTX_clear_mode(ctx, SSL_MODE_AUTO_RETRY); // a peer's messages without data hold nobody
    SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                              SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_read_ahead(ctx, 1);
    SSL_CTX_set_default_passwd_cb(ctx, no_passphrase);
    return made;
}

std::string load_own(SSL_CTX* ctx, const tls_files& files) {
    if (SSL_CTX_use_certificate_chain_file(ctx, files.cert.c_str()) != 1)
        return files.cert + ": " + openssl_error("no certificate");
    if (SSL_CTX_use_PrivateKey_file(ctx, files.key.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(ctx) != 1)
        return files.key + ": " + openssl_error("no key") + " (of " + files.cert + ")";
    return {};
}

// Revocation lists count once the file has one.
std::string load_trusted(SSL_CTX* ctx, const std::string& ca) {
    STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(ca.c_str());
    if (names == nullptr || SSL_CTX_load_verify_file(ctx, ca.c_str()) != 1) {
        sk_X509_NAME_pop_free(names, X509_NAME_free);
        return ca + ": " + openssl_error("no certificate");
    }
    SSL_CTX_set_client_CA_list(ctx, names);
    X509_STORE* store = SSL_CTX_get_cert_store(ctx);
    unsigned long flags = X509_V_FLAG_PARTIAL_CHAIN;
    const STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(store);
    for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i)
        if (X509_OBJECT_get_type(sk_X509_OBJECT_value(objects, i)) == X509_LU_CRL)
            flags |= X509_V_FLAG_CRL_CHECK;
    X509_STORE_set_flags(store, flags);
    return {};
}

// Whether peers with the same files would take the certificate.
std::string check_own(SSL_CTX* ctx, const tls_files& files) {
    STACK_OF(X509)* chain = nullptr;
    SSL_CTX_get0_chain_certs(ctx, &chain);
    const x509_store_ctx_ptr check(X509_STORE_CTX_new());
    if (check == nullptr || X509_STORE_CTX_init(check.get(), SSL_CTX_get_cert_store(ctx),
                                                SSL_CTX_get0_certificate(ctx), chain) != 1)
        return "no memory";
    if (X509_verify_cert(check.get()) == 1)
        return {};
    return files.cert + ": " +
           X509_verify_cert_error_string(X509_STORE_CTX_get_error(check.get())) + " (by " +
           files.ca + ")";
}

std::string load_into(SSL_CTX* ctx, const tls_files& files) {
    for (const std::string& fault :
         {file_fault(files.cert, 0), file_fault(files.key, S_IROTH | S_IWOTH),
          file_fault(files.ca, 0)})
        if (!fault.empty())
            return fault;
    ERR_clear_error();
    std::string fault = load_own(ctx, files);
    if (fault.empty())
        fault = load_trusted(ctx, files.ca);
    return fault.empty() ? check_own(ctx, files) : fault;
}

bool is_address(const std::string& name) {
    return name.find_first_not_of("0123456789.") == std::string::npos ||
           name.find(':') != std::string::npos;
}

std::string escaped(const ASN1_STRING* text) {
    const bio_ptr out(BIO_new(BIO_s_mem()));
    char* bytes = nullptr;
    if (out == nullptr ||
        ASN1_STRING_print_ex(out.get(), text, ASN1_STRFLGS_ESC_CTRL | ASN1_STRFLGS_ESC_MSB) < 0)
        return {};
    const long length = BIO_get_mem_data(out.get(), &bytes);
    return {bytes, std::min(static_cast<std::size_t>(length), NAME_LENGTH)};
}

std::string address_text(const ASN1_OCTET_STRING* bytes) {
    char text[INET6_ADDRSTRLEN] = "";
    const int length = ASN1_STRING_length(bytes);
    if (length == 4 || length == 16)
        inet_ntop(length == 4 ? AF_INET : AF_INET6, ASN1_STRING_get0_data(bytes), text,
                  sizeof text);
    return text;
}

general_names_ptr alternative_names(const X509* certificate) {
    return general_names_ptr(static_cast<GENERAL_NAMES*>(
        X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
}

} // namespace

std::string openssl_error(const std::string& otherwise) {
    const unsigned long code = ERR_peek_error();
    if (ERR_GET_LIB(code) == ERR_LIB_SYS)
        return std::strerror(ERR_GET_REASON(code));
    const char* text = code == 0 ? nullptr : ERR_reason_error_string(code);
    return text != nullptr ? text : otherwise;
}

tls_context* load_context(const tls_files& files, std::string* error) {
    ssl_ctx_ptr ctx = make_ssl_ctx();
    *error = ctx == nullptr ? openssl_error("no memory") : load_into(ctx.get(), files);
    if (!error->empty())
        return nullptr;
    const std::time_t expires = end_of(SSL_CTX_get0_certificate(ctx.get()));
    return std::make_unique<tls_context>(tls_context{std::move(ctx), expires}).release();
}

std::time_t file_expires(const char* cert_file, std::string* error) {
    *error = file_fault(cert_file, 0);
    if (!error->empty())
        return 0;
    ERR_clear_error();
    const file_ptr file(std::fopen(cert_file, "re"));
    const x509_ptr certificate(
        file == nullptr ? nullptr : PEM_read_X509(file.get(), nullptr, no_passphrase, nullptr));
    if (certificate == nullptr)
        *error = std::string(cert_file) + ": " +
                 (file == nullptr ? std::strerror(errno) : openssl_error("no certificate"));
    return certificate == nullptr ? 0 : end_of(certificate.get());
}

std::string name_of(const X509* certificate) {
    const general_names_ptr names = alternative_names(certificate);
    for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
        const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), i);
        if (name->type == GEN_DNS)
            return escaped(name->d.dNSName);
        if (name->type == GEN_IPADD)
            return address_text(name->d.iPAddress);
    }
    const X509_NAME* subject = X509_get_subject_name(certificate);
    const int at = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    return at < 0 ? "" : escaped(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, at)));
}

bool carries_name(X509* certificate, const std::vector<std::string>& names, bool wildcards) {
    const bool by_subject = alternative_names(certificate) == nullptr;
    const unsigned int flags =
        (by_subject ? X509_CHECK_FLAG_ALWAYS_CHECK_SUBJECT : X509_CHECK_FLAG_NEVER_CHECK_SUBJECT) |
        (wildcards ? 0U : X509_CHECK_FLAG_NO_WILDCARDS);
    return std::any_of(names.begin(), names.end(), [&](const std::string& name) {
        return !by_subject && is_address(name)
                   ? X509_check_ip_asc(certificate, name.c_str(), 0) == 1
                   : X509_check_host(certificate, name.data(), name.size(), flags, nullptr) == 1;
    });
}

} // namespace agt
