#pragma once

#include "comm/TlsSettings.h"

#include <QString>

#include <sys/types.h>

class StoppableWait;
struct OpenSslLibrary;
typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;

// A TLS client stream over an already connected socket, verified the way the
// HTTP channel is: CA file or the system's trust store, the server's name or
// address (subjectAltName only), and the pinned key (sha256 of its
// SubjectPublicKeyInfo) when set. A server that asks to renegotiate is
// dropped: the certificate checked at the start is the only one ever taken.
// The socket is switched to non-blocking; every wait goes through the caller's
// StoppableWait so a stop request ends a handshake, a read or a write at once.
class TlsChannel
{
public:
    static constexpr ssize_t kAgain = -2; // nothing to hand over yet

    TlsChannel() = default;
    ~TlsChannel();
    TlsChannel(const TlsChannel&) = delete;
    TlsChannel& operator=(const TlsChannel&) = delete;

    // Handshake and checks, bounded by timeoutMs. false with the reason in error().
    bool handshake(int fd, const TlsSettings& settings, const QString& host, StoppableWait& wait,
                   int timeoutMs);

    // All of data or -1.
    ssize_t send(const char* data, size_t size, StoppableWait& wait, int timeoutMs);
    // >0 bytes, 0 closed by the peer, -1 failed, kAgain: only protocol records came in.
    ssize_t receive(char* buffer, size_t size);
    // Decrypted bytes already held, which poll() on the socket cannot see.
    bool hasBuffered() const;

    QString error() const { return m_error; }

private:
    bool fail(const QString& reason);
    bool setUpContext(const TlsSettings& settings);
    bool pinMatches(const QList<QByteArray>& pins);
    bool droppedForRenegotiation();
    static void onSslEvent(const SSL* ssl, int where, int ret);

    const OpenSslLibrary* m_api = nullptr;
    SSL_CTX* m_ctx = nullptr;
    SSL* m_ssl = nullptr;
    bool m_established = false;        // the first handshake and its checks passed
    bool m_healthy = false;            // established, no fatal error since
    bool m_renegotiationAsked = false; // set from OpenSSL's callback
    QString m_host;
    QString m_error;
};
