#include "push/TlsChannel.h"

#include "push/StoppableWait.h"

#include <QFile>
#include <QHostAddress>

#include "comm/OpenSslLibrary.h"
#include "core/CLogger.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <poll.h>

namespace
{
QString openSslError(const OpenSslLibrary* api)
{
    const unsigned long code = api->ERR_get_error();
    api->ERR_clear_error();
    if (code == 0)
        return QStringLiteral("no detail");
    char text[256] = {};
    api->ERR_error_string_n(code, text, sizeof text);
    return QString::fromLatin1(text);
}

int remainingMs(std::chrono::steady_clock::time_point deadline)
{
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())
            .count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Waits for what OpenSSL asked for; false on time-out or stop, with the reason.
bool waitForSsl(int sslError, int fd, StoppableWait& wait, std::chrono::steady_clock::time_point deadline,
                QString* reason)
{
    const short events = sslError == SSL_ERROR_WANT_WRITE ? POLLOUT : POLLIN;
    switch (wait.waitFor(fd, events, remainingMs(deadline))) {
    case StoppableWait::Ready:
        return true;
    case StoppableWait::Timeout:
        *reason = QStringLiteral("timed out");
        return false;
    case StoppableWait::Stopped:
        *reason = QStringLiteral("stopped");
        return false;
    case StoppableWait::Failed:
        break;
    }
    *reason = QStringLiteral("poll failed");
    return false;
}
} // namespace

TlsChannel::~TlsChannel()
{
    if (!m_api)
        return;
    if (m_ssl) {
        // Best effort close_notify, only on a healthy connection (OpenSSL forbids
        // it after a fatal error); the socket is non-blocking, so it never waits.
        if (m_healthy)
            m_api->SSL_shutdown(m_ssl);
        m_api->SSL_free(m_ssl);
    }
    m_api->ERR_clear_error();
    if (m_ctx)
        m_api->SSL_CTX_free(m_ctx);
}

bool TlsChannel::fail(const QString& reason)
{
    m_error = reason;
    if (m_api)
        m_api->ERR_clear_error();
    return false;
}

bool TlsChannel::setUpContext(const TlsSettings& settings)
{
    m_ctx = m_api->SSL_CTX_new(m_api->TLS_client_method());
    if (!m_ctx)
        return fail(QStringLiteral("cannot create a TLS context: ") + openSslError(m_api));
    m_api->SSL_CTX_ctrl(m_ctx, SSL_CTRL_SET_MIN_PROTO_VERSION, TLS1_2_VERSION, nullptr);
    m_api->SSL_CTX_set_verify(m_ctx, SSL_VERIFY_PEER, nullptr);
    if (settings.caFile.isEmpty()) {
        if (m_api->SSL_CTX_set_default_verify_paths(m_ctx) != 1)
            return fail(QStringLiteral("cannot load the system trust store: ") + openSslError(m_api));
    } else if (m_api->SSL_CTX_load_verify_locations(m_ctx, QFile::encodeName(settings.caFile).constData(),
                                                    nullptr) != 1) {
        return fail(QStringLiteral("cannot load CA file %1: %2").arg(settings.caFile, openSslError(m_api)));
    }
    return true;
}

bool TlsChannel::handshake(int fd, const TlsSettings& settings, const QString& host, StoppableWait& wait,
                           int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    QString badPin;
    const auto pins = TlsSettings::parsePins(settings.pinnedKeys, &badPin);
    if (!pins)
        return fail(QStringLiteral("EDRPINNEDKEY entry \"%1\" is not sha256//<base64>").arg(badPin));
    m_api = OpenSslLibrary::get();
    if (!m_api)
        return fail(QStringLiteral("OpenSSL unavailable: ") + QString::fromLatin1(OpenSslLibrary::error()));
    if (!setUpContext(settings))
        return false;

    const QByteArray name = host.toUtf8();
    if (!m_api->expectServer(m_ctx, name.constData()))
        return fail(QStringLiteral("cannot set the expected server name %1").arg(host));
    m_host = host;
    m_ssl = m_api->SSL_new(m_ctx);
    if (!m_ssl || m_api->SSL_set_fd(m_ssl, fd) != 1)
        return fail(QStringLiteral("cannot set up TLS: ") + openSslError(m_api));
    m_api->SSL_set_ex_data(m_ssl, 0, this);
    m_api->SSL_set_info_callback(m_ssl, &TlsChannel::onSslEvent);
    if (QHostAddress(host).isNull())
        m_api->SSL_ctrl(m_ssl, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                        const_cast<char*>(name.constData()));
    m_api->SSL_ctrl(m_ssl, SSL_CTRL_MODE, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER,
                    nullptr);
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL, 0) | O_NONBLOCK);

    for (;;) {
        const int rc = m_api->SSL_connect(m_ssl);
        if (rc == 1)
            break;
        const int err = m_api->SSL_get_error(m_ssl, rc);
        if (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE) {
            QString reason;
            if (!waitForSsl(err, fd, wait, deadline, &reason))
                return fail(QStringLiteral("handshake ") + reason);
            continue;
        }
        const long verify = m_api->SSL_get_verify_result(m_ssl);
        if (verify != X509_V_OK)
            return fail(QStringLiteral("certificate refused: ") +
                        QString::fromLatin1(m_api->X509_verify_cert_error_string(verify)));
        if (err == SSL_ERROR_SYSCALL && m_api->ERR_peek_error() == 0)
            return fail(QStringLiteral("connection closed during the handshake"));
        return fail(QStringLiteral("handshake failed: ") + openSslError(m_api));
    }
    if (!pins->isEmpty() && !pinMatches(*pins))
        return fail(QStringLiteral("the server's public key does not match EDRPINNEDKEY"));
    m_established = true;
    m_healthy = true;
    return true;
}

// Any handshake after the first is a renegotiation (TLS 1.3 has none, and
// its session tickets and key updates do not start a handshake here).
void TlsChannel::onSslEvent(const SSL* ssl, int where, int)
{
    if (!(where & SSL_CB_HANDSHAKE_START))
        return;
    const OpenSslLibrary* api = OpenSslLibrary::get();
    auto* self = static_cast<TlsChannel*>(api->SSL_get_ex_data(ssl, 0));
    if (self && self->m_established)
        self->m_renegotiationAsked = true;
}

// The session stays as it was (renegotiation is refused), but a server that
// asks has been replaced or is misbehaving: nothing more is taken from it.
bool TlsChannel::droppedForRenegotiation()
{
    if (!m_renegotiationAsked)
        return false;
    if (m_healthy) {
        m_healthy = false;
        m_error = QStringLiteral("the server asked to renegotiate");
        EDR_LOG->Error(Q_FUNC_INFO, EPROTO, "TLS connection to %s dropped: the server asked to renegotiate",
                       qUtf8Printable(m_host));
    }
    m_api->ERR_clear_error();
    return true;
}

bool TlsChannel::pinMatches(const QList<QByteArray>& pins)
{
    X509* cert = m_api->SSL_get1_peer_certificate(m_ssl);
    if (!cert)
        return false;
    unsigned char* der = nullptr;
    const int length = m_api->i2d_X509_PUBKEY(m_api->X509_get_X509_PUBKEY(cert), &der);
    m_api->X509_free(cert);
    if (length <= 0)
        return false;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    const bool hashed = m_api->EVP_Digest(der, static_cast<size_t>(length), digest, &digestLength,
                                          m_api->EVP_sha256(), nullptr) == 1;
    m_api->CRYPTO_free(der, __FILE__, __LINE__);
    if (!hashed)
        return false;
    const QByteArray actual(reinterpret_cast<const char*>(digest), static_cast<int>(digestLength));
    return pins.contains(actual);
}

ssize_t TlsChannel::send(const char* data, size_t size, StoppableWait& wait, int timeoutMs)
{
    if (!m_ssl || droppedForRenegotiation())
        return -1;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    size_t written = 0;
    while (written < size) {
        size_t n = 0;
        const int rc = m_api->SSL_write_ex(m_ssl, data + written, size - written, &n);
        if (droppedForRenegotiation())
            return -1;
        if (rc == 1) {
            written += n;
            continue;
        }
        const int err = m_api->SSL_get_error(m_ssl, rc);
        QString reason;
        const bool retry = err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE;
        if (!retry || !waitForSsl(err, m_api->SSL_get_fd(m_ssl), wait, deadline, &reason)) {
            // A write cut short leaves the record stream broken either way.
            m_healthy = false;
            m_api->ERR_clear_error();
            return -1;
        }
    }
    return static_cast<ssize_t>(written);
}

ssize_t TlsChannel::receive(char* buffer, size_t size)
{
    if (!m_ssl || droppedForRenegotiation())
        return -1;
    size_t n = 0;
    const int rc = m_api->SSL_read_ex(m_ssl, buffer, size, &n);
    // Whatever came with the request is dropped with the connection.
    if (droppedForRenegotiation())
        return -1;
    if (rc == 1)
        return static_cast<ssize_t>(n);
    const int err = m_api->SSL_get_error(m_ssl, rc);
    m_api->ERR_clear_error();
    if (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE)
        return kAgain;
    if (err == SSL_ERROR_ZERO_RETURN)
        return 0;
    m_healthy = false;
    return -1;
}

bool TlsChannel::hasBuffered() const
{
    return m_ssl && m_api->SSL_pending(m_ssl) > 0;
}
