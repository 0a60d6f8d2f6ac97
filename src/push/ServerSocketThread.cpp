#include "push/ServerSocketThread.h"

#include "comm/OpenSslLibrary.h"

#include "core/CLogger.h"
#include "core/Common.h"
#include "core/UniqueFd.h"
#include "identity/AgentDetails.h"
#include "identity/ServerDetails.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
constexpr int kRecvBufferSize = 4096;
constexpr qint64 kReceiveTimeoutMs = 45000;
constexpr qint64 kSendTimeoutMs = 5000;
constexpr qint64 kConnectTimeoutMs = 5000;
constexpr qint64 kPauseAfterMessageMs = 1000;
constexpr qint64 kTlsHandshakeTimeoutMs = 10000;
// Scaled down for tests, but never below what a loaded machine needs for the
// handshake's public-key work.
constexpr int kTlsHandshakeFloorMs = 1000;
const char kKeepAlive[] = "keep-alive";

timeval toTimeval(int ms)
{
    timeval tv{};
    tv.tv_sec = ms / 1000;
    tv.tv_usec = (ms % 1000) * 1000;
    return tv;
}
} // namespace

ServerSocketThread::ServerSocketThread(QObject* parent)
    : QThread(parent), m_agentDetails(AgentDetails::getInstance()),
      m_serverDetails(ServerDetails::getInstance())
{
}

ServerSocketThread::~ServerSocketThread()
{
    requestStop();
    wait();
}

void ServerSocketThread::run()
{
    startSocket();
}

void ServerSocketThread::startSocket()
{
    connectToServerSocket();
    // OpenSSL frees this thread's state from a thread-exit hook, which may run
    // after a waiting stop has already returned and the process has ended:
    // free it here, while the thread is still ours.
    if (m_usedTls)
        if (const OpenSslLibrary* api = OpenSslLibrary::get())
            api->OPENSSL_thread_stop();
    emit socketClosed();
}

bool ServerSocketThread::sendKeepAlive(int fd)
{
    return sendText(fd, kKeepAlive, sizeof kKeepAlive - 1) > 0;
}

ssize_t ServerSocketThread::sendText(int fd, const char* data, size_t size)
{
    if (m_tls)
        return m_tls->send(data, size, m_wait, Common::scaledMs(kSendTimeoutMs));
    return ::send(fd, data, size, MSG_NOSIGNAL);
}

ssize_t ServerSocketThread::receiveText(int fd, char* buffer, size_t size)
{
    if (m_tls)
        return m_tls->receive(buffer, size);
    return ::recv(fd, buffer, size, 0);
}

// With TLS on nothing is written before the server is verified, and a failure
// never falls back to plain.
bool ServerSocketThread::startTls(int fd)
{
    m_tls.reset();
    const TlsSettings settings = TlsSettings::current();
    if (!settings.enabled)
        return true;
    m_usedTls = true;
    auto channel = std::make_unique<TlsChannel>();
    const int limitMs = qMax(kTlsHandshakeFloorMs, Common::scaledMs(kTlsHandshakeTimeoutMs));
    if (!channel->handshake(fd, settings, m_serverIp, m_wait, limitMs)) {
        const QByteArray ip = m_serverIp.toUtf8();
        EDR_LOG->Error(Q_FUNC_INFO, EPROTO, "TLS connection to %s:%d refused: %s", ip.constData(),
                       m_serverPort, qUtf8Printable(channel->error()));
        return false;
    }
    m_tls = std::move(channel);
    return true;
}

bool ServerSocketThread::connectToServerSocket()
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    m_lastConnectionStatus = false;
    if (m_serverIp.isEmpty()) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Server Ip Address Not Found!");
        return false;
    }
    if (m_serverPort < 1 || m_serverPort > 65535) {
        EDR_LOG->Error(Q_FUNC_INFO, EINVAL, "Server socket port %d is not a usable port!", m_serverPort);
        return false;
    }
    char ipBuffer[40] = {};
    const QByteArray ip = m_serverIp.toUtf8();
    std::strncpy(ipBuffer, ip.constData(), sizeof ipBuffer - 1);
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(static_cast<uint16_t>(m_serverPort & 0xffff));
    server.sin_addr.s_addr = inet_addr(ipBuffer);

    char handshake[1024] = {};
    const QByteArray localIp = m_agentDetails->getLocalIpAddress().toUtf8();
    const QByteArray authCode = m_config.getAuthCode().toUtf8();
    std::snprintf(handshake, sizeof handshake, "Connect#$#$%s#$#$%s", localIp.constData(),
                  authCode.constData());

    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
    if (!fd) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Failed to get socket connection!");
        return false;
    }
    EDR_LOG->Trace(Q_FUNC_INFO, "Connecting to Server: %s:%d", ipBuffer, m_serverPort);

    const timeval recvTimeout = toTimeval(Common::scaledMs(kReceiveTimeoutMs));
    const timeval sendTimeout = toTimeval(Common::scaledMs(kSendTimeoutMs));
    if (::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &recvTimeout, sizeof recvTimeout) != 0)
        EDR_LOG->Error(Q_FUNC_INFO, errno, "setsockopt Failed! - SO_RCVTIMEO");
    if (::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout) != 0)
        EDR_LOG->Error(Q_FUNC_INFO, errno, "setsockopt Failed! - SO_SNDTIMEO");

    // Connect without blocking so a stop request can interrupt a slow attempt,
    // and give it the same 5 s as a send: a server that drops SYNs would
    // otherwise hold the attempt for the kernel's two minutes.
    const int flags = ::fcntl(fd.get(), F_GETFL, 0);
    ::fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK);
    int rc = ::connect(fd.get(), reinterpret_cast<sockaddr*>(&server), sizeof server);
    if (rc != 0 && errno == EINPROGRESS) {
        switch (m_wait.waitFor(fd.get(), POLLOUT, Common::scaledMs(kConnectTimeoutMs))) {
        case StoppableWait::Ready: {
            int soError = 0;
            socklen_t len = sizeof soError;
            ::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &soError, &len);
            errno = soError;
            rc = soError == 0 ? 0 : -1;
            break;
        }
        case StoppableWait::Timeout:
            errno = ETIMEDOUT;
            break;
        case StoppableWait::Stopped:
            // Shutting down: not a fault of the server.
            EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
            return false;
        case StoppableWait::Failed:
            break; // errno from poll
        }
    }
    ::fcntl(fd.get(), F_SETFL, flags);
    if (rc != 0) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Socket Server is unreachable! Server: %s:%d", ipBuffer,
                       m_serverPort);
        return false;
    }
    if (!startTls(fd.get()))
        return false;

    m_lastConnectionStatus = true;
    EDR_LOG->Trace(Q_FUNC_INFO, "Connected to server socket. Server: %s - %d", ipBuffer, m_serverPort);
    sendText(fd.get(), handshake, std::strlen(handshake));
    EDR_LOG->Trace(Q_FUNC_INFO, "Send to %s: %s", ipBuffer, handshake);

    connectToSocket(fd.get());

    m_tls.reset();
    fd.reset();
    EDR_LOG->Trace(Q_FUNC_INFO, "Server Socket Closed. %s", ipBuffer);
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
    return true;
}

void ServerSocketThread::connectToSocket(int fd)
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    const QByteArray serverIp = m_serverIp.toUtf8();
    const int receiveTimeout = Common::scaledMs(kReceiveTimeoutMs);
    char buffer[kRecvBufferSize + 1];
    for (;;) {
        std::memset(buffer, 0, sizeof buffer);
        const bool buffered = m_tls && m_tls->hasBuffered();
        const StoppableWait::Result ready =
            buffered ? StoppableWait::Ready : m_wait.waitFor(fd, POLLIN, receiveTimeout);
        if (ready == StoppableWait::Stopped)
            break;
        if (ready == StoppableWait::Failed) {
            EDR_LOG->Error(Q_FUNC_INFO, errno, "poll Failed! - %s", serverIp.constData());
            break;
        }
        ssize_t n = -1;
        if (ready == StoppableWait::Ready)
            n = receiveText(fd, buffer, kRecvBufferSize);
        if (n == TlsChannel::kAgain)
            continue; // a TLS record without data (a session ticket, say)
        // The server closed its side: a keep-alive could still be sent to a
        // half-closed connection, but nothing would ever arrive on it again.
        if (n == 0)
            break;
        if (n < 0) {
            // An error or a silent period: a keep-alive tells which.
            if (m_wait.stopRequested() || !sendKeepAlive(fd))
                break;
            continue;
        }
        buffer[n] = '\0';
        EDR_LOG->Trace(Q_FUNC_INFO, "Recieved From %s: %s", serverIp.constData(), buffer);
        emit messageRecieved(m_serverIp, QByteArray(buffer, static_cast<int>(n)));
        if (!m_wait.sleepFor(Common::scaledMs(kPauseAfterMessageMs)))
            break;
        sendKeepAlive(fd);
    }
    EDR_LOG->Info(Q_FUNC_INFO, "%s Disconnected! - %d", serverIp.constData(), fd);
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
}
