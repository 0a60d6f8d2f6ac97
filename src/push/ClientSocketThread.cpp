#include "push/ClientSocketThread.h"

#include "core/AuditLog.h"
#include "core/CLogger.h"
#include "core/Common.h"

#include <QHostAddress>
#include <QMutexLocker>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
constexpr int kRecvBufferSize = 4096;
constexpr qint64 kBindRetryMs = 60000;
constexpr qint64 kClientSilenceMs = 10000;
constexpr qint64 kPauseBeforeOkMs = 1000;
constexpr qint64 kPauseAfterClientMs = 5000;
constexpr qint64 kAcceptBackoffMs = 1000;

bool isTransientAcceptError(int err)
{
    switch (err) {
    case EINTR:
    case EAGAIN:
    case ECONNABORTED:
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
    case EPROTO:
    case EPERM:
    case ENETDOWN:
    case ENOPROTOOPT:
    case EHOSTDOWN:
    case ENONET:
    case EHOSTUNREACH:
    case EOPNOTSUPP:
    case ENETUNREACH:
        return true;
    default:
        return false;
    }
}
} // namespace

ClientSocketThread::ClientSocketThread(QObject* parent) : QThread(parent) {}

ClientSocketThread::~ClientSocketThread()
{
    requestStop();
    wait();
}

void ClientSocketThread::setAllowList(const ListenerAllowList& list)
{
    QMutexLocker lock(&m_allowMutex);
    m_allow = list;
}

bool ClientSocketThread::peerAllowed(const QString& peer)
{
    QMutexLocker lock(&m_allowMutex);
    return m_allow.allows(QHostAddress(peer));
}

void ClientSocketThread::run()
{
    m_wait.reset();
    startSocket();
}

void ClientSocketThread::startSocket()
{
    runSocketListner();
}

// A bound socket, retried every minute while the port is taken; -1 when
// stopped or when no socket can be made at all.
int ClientSocketThread::bindSocket()
{
    const bool tcp = m_protocol == TCP;
    for (;;) {
        const int fd = tcp ? ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP)
                           : ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
        if (fd < 0) {
            EDR_LOG->Error(Q_FUNC_INFO, errno, "Socket Failed!");
            return -1;
        }
        // A restarted agent must get its port back at once.
        int one = 1;
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<uint16_t>(m_clientPort & 0xffff));
        addr.sin_addr.s_addr = inet_addr("0.0.0.0");
        if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0)
            return fd;
        EDR_LOG->Error(Q_FUNC_INFO, errno, "bind Failed!");
        ::close(fd);
        if (!m_wait.sleepFor(Common::scaledMs(kBindRetryMs)))
            return -1;
    }
}

bool ClientSocketThread::runSocketListner()
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    const int fd = bindSocket();
    if (fd < 0) {
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return false;
    }
    if (m_protocol == TCP) {
        ::listen(fd, 1);
        while (!m_wait.stopRequested()) {
            if (m_wait.waitFor(fd, POLLIN, -1) != StoppableWait::Ready)
                continue; // stopped (the loop ends) or interrupted
            sockaddr_in peer{};
            socklen_t len = sizeof peer;
            const int client = ::accept4(fd, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
            if (client < 0) {
                const int err = errno;
                if (!isTransientAcceptError(err)) {
                    EDR_LOG->Error(Q_FUNC_INFO, err, "accept Failed!");
                    break;
                }
                EDR_LOG->Error(Q_FUNC_INFO, err, "accept Failed! Retrying");
                if (err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM)
                    m_wait.sleepFor(Common::scaledMs(kAcceptBackoffMs));
                continue;
            }
            char address[INET_ADDRSTRLEN] = {};
            ::inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address);
            if (!peerAllowed(QString::fromLatin1(address))) {
                EDR_LOG->Error(Q_FUNC_INFO, EACCES,
                               "Refused command connection from %s: not an allowed address", address);
                AuditLog::getInstance()->record(AuditLog::Listener, QString::fromLatin1(address), QString(),
                                                std::nullopt, AuditLog::RefusedPeer);
                ::close(client);
                continue;
            }
            EDR_LOG->Info(Q_FUNC_INFO, "%s - Connected on socket. - %u %d", address, m_clientPort.load(),
                          client);
            m_clientAddress = QString::fromLatin1(address);
            connectToSocket(client);
            ::close(client);
            EDR_LOG->Trace(Q_FUNC_INFO, "Client Socket Closed. Sleep for 5 seconds");
            m_wait.sleepFor(Common::scaledMs(kPauseAfterClientMs));
        }
    } else {
        connectToSocket(fd);
    }
    ::close(fd);
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
    return true;
}

void ClientSocketThread::connectToSocket(int fd)
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    char buffer[kRecvBufferSize + 1];
    std::memset(buffer, 0, sizeof buffer);
    const bool tcp = m_protocol == TCP;
    // A client that says nothing is dropped rather than holding the listener.
    const StoppableWait::Result ready =
        m_wait.waitFor(fd, POLLIN, tcp ? Common::scaledMs(kClientSilenceMs) : -1);
    ssize_t n = -1;
    sockaddr_in from{};
    if (ready == StoppableWait::Ready) {
        if (tcp) {
            n = ::recv(fd, buffer, kRecvBufferSize, 0);
        } else {
            socklen_t len = sizeof from;
            n = ::recvfrom(fd, buffer, kRecvBufferSize, 0, reinterpret_cast<sockaddr*>(&from), &len);
        }
    } else if (ready == StoppableWait::Timeout) {
        EDR_LOG->Error(Q_FUNC_INFO, ETIMEDOUT, "%s sent nothing; dropped", qUtf8Printable(m_clientAddress));
    }
    if (n <= 0) {
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return;
    }
    if (!tcp) {
        char address[INET_ADDRSTRLEN] = {};
        ::inet_ntop(AF_INET, &from.sin_addr, address, sizeof address);
        EDR_LOG->Info(Q_FUNC_INFO, "%s - Connected on socket - %u %d.", address, m_clientPort.load(), fd);
        m_clientAddress = QString::fromLatin1(address);
        if (!peerAllowed(m_clientAddress)) {
            EDR_LOG->Error(Q_FUNC_INFO, EACCES, "Refused command from %s: not an allowed address", address);
            buffer[n] = '\0';
            AuditLog::getInstance()->record(AuditLog::Listener, m_clientAddress, QString::fromUtf8(buffer),
                                            std::nullopt, AuditLog::RefusedPeer);
            EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
            return;
        }
    }
    buffer[n] = '\0';
    EDR_LOG->Trace(Q_FUNC_INFO, "Recieved From Socket: %s", buffer);
    emit messageRecieved(m_clientAddress, QString::fromUtf8(buffer, static_cast<int>(std::strlen(buffer))));
    if (m_wait.sleepFor(Common::scaledMs(kPauseBeforeOkMs))) {
        ::send(fd, "OK", 2, MSG_NOSIGNAL);
    }
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
}
