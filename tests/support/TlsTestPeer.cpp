#include "support/TlsTestPeer.h"

#include "support/TestSupport.h"

#include <QFile>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <sys/socket.h>
#include <unistd.h>

namespace edrtest
{

namespace
{
void setTimeouts(int fd, int ms)
{
    const timeval tv{ms / 1000, (ms % 1000) * 1000};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}
} // namespace

TlsTestPeer::TlsTestPeer()
{
    m_listenFd = LoopbackSocket::listenOn(&m_port);
}

TlsTestPeer::~TlsTestPeer()
{
    if (m_ssl)
        SSL_free(m_ssl);
    if (m_ctx)
        SSL_CTX_free(m_ctx);
    if (m_fd >= 0)
        ::close(m_fd);
    if (m_listenFd >= 0)
        ::close(m_listenFd);
    ERR_clear_error();
}

bool TlsTestPeer::accept(const QString& cert, const QString& key, bool tls12, int timeoutMs)
{
    m_fd = LoopbackSocket::acceptOne(m_listenFd, timeoutMs);
    m_ctx = SSL_CTX_new(TLS_server_method());
    if (m_fd < 0 || !m_ctx)
        return false;
    setTimeouts(m_fd, timeoutMs);
    if (tls12)
        SSL_CTX_set_max_proto_version(m_ctx, TLS1_2_VERSION);
    m_ssl = SSL_new(m_ctx);
    return m_ssl && SSL_set_fd(m_ssl, m_fd) == 1 &&
           SSL_use_certificate_chain_file(m_ssl, QFile::encodeName(cert).constData()) == 1 &&
           SSL_use_PrivateKey_file(m_ssl, QFile::encodeName(key).constData(), SSL_FILETYPE_PEM) == 1 &&
           SSL_accept(m_ssl) == 1;
}

QByteArray TlsTestPeer::read()
{
    char buffer[4096];
    size_t n = 0;
    if (m_ssl && SSL_read_ex(m_ssl, buffer, sizeof buffer, &n) == 1)
        return QByteArray(buffer, static_cast<int>(n));
    char reason[256] = {};
    ERR_error_string_n(ERR_peek_last_error(), reason, sizeof reason);
    m_failure = reason;
    ERR_clear_error();
    return QByteArray();
}

bool TlsTestPeer::write(const QByteArray& data)
{
    size_t n = 0;
    return m_ssl && SSL_write_ex(m_ssl, data.constData(), static_cast<size_t>(data.size()), &n) == 1;
}

bool TlsTestPeer::requestRenegotiation(const QString& cert, const QString& key)
{
    return m_ssl && SSL_use_certificate_chain_file(m_ssl, QFile::encodeName(cert).constData()) == 1 &&
           SSL_use_PrivateKey_file(m_ssl, QFile::encodeName(key).constData(), SSL_FILETYPE_PEM) == 1 &&
           SSL_renegotiate(m_ssl) == 1 && SSL_do_handshake(m_ssl) == 1;
}

} // namespace edrtest
