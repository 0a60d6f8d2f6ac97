#pragma once

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

// libssl and libcrypto, loaded at the first TLS connection like libcurl
// (CurlLibrary): commands that never talk to the server do not pay for them.
struct OpenSslLibrary {
    unsigned long (*ERR_get_error)();
    unsigned long (*ERR_peek_error)();
    void (*ERR_clear_error)();
    void (*ERR_error_string_n)(unsigned long, char*, size_t);
    const SSL_METHOD* (*TLS_client_method)();
    SSL_CTX* (*SSL_CTX_new)(const SSL_METHOD*);
    void (*SSL_CTX_free)(SSL_CTX*);
    long (*SSL_CTX_ctrl)(SSL_CTX*, int, long, void*);
    void (*SSL_CTX_set_verify)(SSL_CTX*, int, SSL_verify_cb);
    int (*SSL_CTX_set_default_verify_paths)(SSL_CTX*);
    int (*SSL_CTX_load_verify_locations)(SSL_CTX*, const char*, const char*);
    SSL* (*SSL_new)(SSL_CTX*);
    void (*SSL_free)(SSL*);
    long (*SSL_ctrl)(SSL*, int, long, void*);
    int (*SSL_set_fd)(SSL*, int);
    int (*SSL_get_fd)(const SSL*);
    uint64_t (*SSL_CTX_set_options)(SSL_CTX*, uint64_t);
    X509_VERIFY_PARAM* (*SSL_CTX_get0_param)(SSL_CTX*);
    int (*X509_VERIFY_PARAM_set1_host)(X509_VERIFY_PARAM*, const char*, size_t);
    int (*X509_VERIFY_PARAM_set1_ip_asc)(X509_VERIFY_PARAM*, const char*);
    void (*X509_VERIFY_PARAM_set_hostflags)(X509_VERIFY_PARAM*, unsigned int);
    void (*SSL_set_info_callback)(SSL*, void (*)(const SSL*, int, int));
    int (*SSL_set_ex_data)(SSL*, int, void*);
    void* (*SSL_get_ex_data)(const SSL*, int);
    int (*SSL_connect)(SSL*);
    int (*SSL_shutdown)(SSL*);
    int (*SSL_get_error)(const SSL*, int);
    long (*SSL_get_verify_result)(const SSL*);
    X509* (*SSL_get1_peer_certificate)(const SSL*);
    int (*SSL_read_ex)(SSL*, void*, size_t, size_t*);
    int (*SSL_write_ex)(SSL*, const void*, size_t, size_t*);
    int (*SSL_pending)(const SSL*);
    const char* (*X509_verify_cert_error_string)(long);
    X509_PUBKEY* (*X509_get_X509_PUBKEY)(const X509*);
    int (*i2d_X509_PUBKEY)(const X509_PUBKEY*, unsigned char**);
    void (*X509_free)(X509*);
    const EVP_MD* (*EVP_sha256)();
    int (*EVP_Digest)(const void*, size_t, unsigned char*, unsigned int*, const EVP_MD*, ENGINE*);
    void (*CRYPTO_free)(void*, const char*, int);
    void (*OPENSSL_thread_stop)();

    // Every connection made from ctx from now on expects host (a name, or an
    // address literal) in the certificate's subjectAltName, never in its
    // subject CN, and refuses to renegotiate. false when host is unusable.
    bool expectServer(SSL_CTX* ctx, const char* host) const;

    // Loaded once per process; null when it cannot be (the reason is in error()).
    static const OpenSslLibrary* get();
    static const char* error();
};
