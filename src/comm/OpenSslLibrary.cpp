#include "comm/OpenSslLibrary.h"
#include "comm/DynamicSymbol.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <mutex>
#include <string>

namespace
{
OpenSslLibrary g_library;
const OpenSslLibrary* g_loaded = nullptr;
std::string g_error;

void load()
{
    // libssl brings libcrypto with it; RTLD_GLOBAL is not needed for dlsym on the handle.
    void* ssl = ::dlopen("libssl.so.3", RTLD_NOW | RTLD_LOCAL);
    void* crypto = ssl ? ::dlopen("libcrypto.so.3", RTLD_NOW | RTLD_LOCAL) : nullptr;
    if (!ssl || !crypto) {
        const char* why = ::dlerror();
        g_error = why ? why : "libssl.so.3 not found";
        return;
    }
    OpenSslLibrary& l = g_library;
#define EDR_BIND(handle, name) bindSymbol(handle, #name, l.name, g_error)
    const bool ok =
        EDR_BIND(crypto, ERR_get_error) && EDR_BIND(crypto, ERR_peek_error) &&
        EDR_BIND(crypto, ERR_clear_error) && EDR_BIND(crypto, ERR_error_string_n) &&
        EDR_BIND(ssl, TLS_client_method) && EDR_BIND(ssl, SSL_CTX_new) && EDR_BIND(ssl, SSL_CTX_free) &&
        EDR_BIND(ssl, SSL_CTX_ctrl) && EDR_BIND(ssl, SSL_CTX_set_verify) &&
        EDR_BIND(ssl, SSL_CTX_set_default_verify_paths) && EDR_BIND(ssl, SSL_CTX_load_verify_locations) &&
        EDR_BIND(ssl, SSL_new) && EDR_BIND(ssl, SSL_free) && EDR_BIND(ssl, SSL_ctrl) &&
        EDR_BIND(ssl, SSL_set_fd) && EDR_BIND(ssl, SSL_get_fd) && EDR_BIND(ssl, SSL_CTX_set_options) &&
        EDR_BIND(ssl, SSL_CTX_get0_param) && EDR_BIND(crypto, X509_VERIFY_PARAM_set1_host) &&
        EDR_BIND(crypto, X509_VERIFY_PARAM_set1_ip_asc) &&
        EDR_BIND(crypto, X509_VERIFY_PARAM_set_hostflags) && EDR_BIND(ssl, SSL_set_info_callback) &&
        EDR_BIND(ssl, SSL_set_ex_data) && EDR_BIND(ssl, SSL_get_ex_data) && EDR_BIND(ssl, SSL_connect) &&
        EDR_BIND(ssl, SSL_shutdown) && EDR_BIND(ssl, SSL_get_error) && EDR_BIND(ssl, SSL_get_verify_result) &&
        EDR_BIND(ssl, SSL_get1_peer_certificate) && EDR_BIND(ssl, SSL_read_ex) &&
        EDR_BIND(ssl, SSL_write_ex) && EDR_BIND(ssl, SSL_pending) &&
        EDR_BIND(crypto, X509_verify_cert_error_string) && EDR_BIND(crypto, X509_get_X509_PUBKEY) &&
        EDR_BIND(crypto, i2d_X509_PUBKEY) && EDR_BIND(crypto, X509_free) && EDR_BIND(crypto, EVP_sha256) &&
        EDR_BIND(crypto, EVP_Digest) && EDR_BIND(crypto, CRYPTO_free) &&
        EDR_BIND(crypto, OPENSSL_thread_stop);
#undef EDR_BIND
    if (ok)
        g_loaded = &g_library;
}
} // namespace

bool OpenSslLibrary::expectServer(SSL_CTX* ctx, const char* host) const
{
    X509_VERIFY_PARAM* param = SSL_CTX_get0_param(ctx);
    if (!param || !host || !*host)
        return false;
    // Left to itself OpenSSL matches a name against the CN when the
    // certificate has no DNS entry in its subjectAltName.
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
    unsigned char address[sizeof(in6_addr)];
    const bool literal =
        ::inet_pton(AF_INET, host, address) == 1 || ::inet_pton(AF_INET6, host, address) == 1;
    const int set =
        literal ? X509_VERIFY_PARAM_set1_ip_asc(param, host) : X509_VERIFY_PARAM_set1_host(param, host, 0);
    // A renegotiation could bring a certificate nobody checked against the pin.
    SSL_CTX_set_options(ctx, SSL_OP_NO_RENEGOTIATION);
    return set == 1;
}

const OpenSslLibrary* OpenSslLibrary::get()
{
    static std::once_flag once;
    std::call_once(once, load);
    return g_loaded;
}

const char* OpenSslLibrary::error()
{
    return g_error.c_str();
}
