#pragma once

// The server side of one TLS connection on 127.0.0.1, in plain OpenSSL, so a
// test can also do what no well-behaved server does (ask for a renegotiation
// and change its certificate). Blocking, every call bounded by a time-out.

#include <QByteArray>
#include <QString>

typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;

namespace edrtest
{

class TlsTestPeer
{
public:
    TlsTestPeer(); // listening
    ~TlsTestPeer();
    TlsTestPeer(const TlsTestPeer&) = delete;
    TlsTestPeer& operator=(const TlsTestPeer&) = delete;

    int port() const { return m_port; }

    // Accepts one client and completes the server's part of the handshake.
    // tls12: TLS 1.2 at most (renegotiation does not exist in 1.3).
    bool accept(const QString& cert, const QString& key, bool tls12, int timeoutMs);
    QByteArray read(); // what one read brings; empty on close, error or time-out
    QByteArray failure() const { return m_failure; } // OpenSSL's reason for the last failed read
    bool write(const QByteArray& data);
    // Loads another certificate and key and sends the client a HelloRequest.
    bool requestRenegotiation(const QString& cert, const QString& key);

private:
    int m_listenFd = -1;
    int m_fd = -1;
    int m_port = 0;
    SSL_CTX* m_ctx = nullptr;
    SSL* m_ssl = nullptr;
    QByteArray m_failure;
};

} // namespace edrtest
