#include "push/ClientSocketThread.h"

#include "core/AuditLog.h"
#include "core/CLogger.h"
#include "core/Common.h"
#include "core/EdrAgentConfig.h"
#include "identity/ServerDetails.h"
#include "push/ListenerPeer.h"
#include "push/PortHolder.h"

#include <QHostAddress>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netdb.h>
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

ClientSocketThread::ClientSocketThread(QObject* parent)
    : QThread(parent), m_serverDetails(ServerDetails::getInstance())
{
}

ClientSocketThread::~ClientSocketThread()
{
    requestStop();
    wait();
}

// Runs on this thread: a server given by name is looked up here, never on
// the main thread. The settings are read again for every client, and the list
// is rebuilt only when they changed.
void ClientSocketThread::refreshAllowList()
{
    const QStringList servers =
        m_serverDetails ? m_serverDetails->getConfiguredServerAddresses() : QStringList();
    const QString listenerAllow = EdrAgentConfig().getSetting(QStringLiteral("ListenerAllow"));
    if (m_allowBuilt && servers == m_allowServers && listenerAllow == m_allowSetting)
        return;
    QStringList rejected;
    m_allow = ListenerAllowList::fromSettings(servers, listenerAllow, &rejected,
                                              [this](const QString& name) { return resolve(name); });
    m_allowServers = servers;
    m_allowSetting = listenerAllow;
    m_allowBuilt = true;
    for (const QString& entry : qAsConst(rejected))
        EDR_LOG->Error(Q_FUNC_INFO, EINVAL, "ListenerAllow entry ignored: %s", qUtf8Printable(entry));
}

// An asynchronous lookup, waited for in slices so that a stop never waits
// for a slow resolver: a lookup still running then is left to finish on its
// own, and its request block is deliberately never freed.
QList<QHostAddress> ClientSocketThread::resolve(const QString& name)
{
    struct Lookup {
        QByteArray host;
        addrinfo hints{};
        gaicb request{};
    };
    QList<QHostAddress> out;
    auto* lookup = new Lookup;
    lookup->host = name.toUtf8();
    lookup->hints.ai_family = AF_INET;
    lookup->hints.ai_socktype = SOCK_STREAM;
    lookup->request.ar_name = lookup->host.constData();
    lookup->request.ar_request = &lookup->hints;
    gaicb* list[1] = {&lookup->request};
    if (const int started = ::getaddrinfo_a(GAI_NOWAIT, list, 1, nullptr)) {
        EDR_LOG->Error(Q_FUNC_INFO, EAGAIN, "Cannot look up %s: %s", lookup->host.constData(),
                       ::gai_strerror(started));
        delete lookup;
        return out;
    }
    const timespec slice{0, 100 * 1000 * 1000};
    while (::gai_error(&lookup->request) == EAI_INPROGRESS) {
        if (m_wait.stopRequested()) {
            if (::gai_cancel(&lookup->request) == EAI_CANCELED)
                delete lookup;
            return out;
        }
        ::gai_suspend(list, 1, &slice);
    }
    const int rc = ::gai_error(&lookup->request);
    if (rc != 0) {
        EDR_LOG->Error(Q_FUNC_INFO, EHOSTUNREACH, "Cannot look up %s: %s", lookup->host.constData(),
                       ::gai_strerror(rc));
    } else {
        for (const addrinfo* a = lookup->request.ar_result; a; a = a->ai_next)
            if (a->ai_family == AF_INET)
                out << QHostAddress(a->ai_addr);
        ::freeaddrinfo(lookup->request.ar_result);
    }
    delete lookup;
    return out;
}

bool ClientSocketThread::peerAllowed(const QString& peer)
{
    // With TLS on the server reaches the agent through the push connection;
    // the listener is for this machine only, whatever the allow-list says.
    if (m_serverDetails && m_serverDetails->getTlsEnabled() && !QHostAddress(peer).isLoopback())
        return false;
    refreshAllowList();
    return m_allow.allows(QHostAddress(peer));
}

QString ClientSocketThread::refusal(const QString& address, int fd)
{
    const QHostAddress peer(address);
    const bool allowed = peerAllowed(address);
    // A datagram's sender cannot be traced to a socket: fd -1 finds none, so
    // a local sender is refused.
    std::optional<SockDiag::Socket> end;
    if (allowed && fd >= 0) {
        end = ListenerPeer::clientEnd(fd);
        if (!end && errno != ENOENT)
            EDR_LOG->Debug(Q_FUNC_INFO, "No socket diagnostics for %s: %s", qUtf8Printable(address),
                           std::strerror(errno));
    }
    const ListenerPeer::Verdict verdict =
        ListenerPeer::judge(allowed, ListenerPeer::isLocalAddress(peer), end);
    return ListenerPeer::reason(verdict, end);
}

void ClientSocketThread::run()
{
    startSocket();
}

void ClientSocketThread::startSocket()
{
    runSocketListner();
}

// A bound (for TCP also listening) socket, retried every minute while the
// port is taken; none when stopped, when the port is unusable or when no
// socket can be made at all.
UniqueFd ClientSocketThread::bindSocket()
{
    const bool tcp = m_protocol == TCP;
    if (m_clientPort < 1 || m_clientPort > 65535) {
        EDR_LOG->Error(Q_FUNC_INFO, EINVAL, "Listen port %u is not a usable port!", m_clientPort.load());
        return UniqueFd();
    }
    for (;;) {
        UniqueFd fd(tcp ? ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP)
                        : ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
        if (!fd) {
            EDR_LOG->Error(Q_FUNC_INFO, errno, "Socket Failed!");
            return fd;
        }
        // A restarted agent must get its port back at once.
        int one = 1;
        ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<uint16_t>(m_clientPort & 0xffff));
        addr.sin_addr.s_addr = inet_addr("0.0.0.0");
        if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
            const int err = errno;
            // Whoever took the port first would get the server's commands.
            if (err == EADDRINUSE && tcp)
                EDR_LOG->Error(
                    Q_FUNC_INFO, err, "bind Failed! Port %u is held by %s", m_clientPort.load(),
                    qUtf8Printable(PortHolder().describeTcpPort(static_cast<uint16_t>(m_clientPort))));
            else
                EDR_LOG->Error(Q_FUNC_INFO, err, "bind Failed!");
        } else if (tcp && ::listen(fd.get(), 1) != 0) {
            EDR_LOG->Error(Q_FUNC_INFO, errno, "listen Failed!");
        } else {
            return fd;
        }
        fd.reset();
        if (!m_wait.sleepFor(Common::scaledMs(kBindRetryMs)))
            return UniqueFd();
    }
}

bool ClientSocketThread::runSocketListner()
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    const UniqueFd fd = bindSocket();
    if (!fd) {
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return false;
    }
    if (m_protocol == TCP) {
        refreshAllowList();
        while (!m_wait.stopRequested()) {
            const StoppableWait::Result ready = m_wait.waitFor(fd.get(), POLLIN, -1);
            if (ready == StoppableWait::Failed) {
                EDR_LOG->Error(Q_FUNC_INFO, errno, "poll Failed! Retrying");
                m_wait.sleepFor(Common::scaledMs(kAcceptBackoffMs));
                continue;
            }
            if (ready != StoppableWait::Ready)
                continue; // stopped: the loop ends
            sockaddr_in peer{};
            socklen_t len = sizeof peer;
            UniqueFd client(::accept4(fd.get(), reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC));
            if (!client) {
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
            const QString why = refusal(QString::fromLatin1(address), client.get());
            if (!why.isEmpty()) {
                // Throttled with the audit record: a flood must not fill the trace log either.
                if (AuditLog::getInstance()->record(AuditLog::Listener, QString::fromLatin1(address),
                                                    QString(), std::nullopt, AuditLog::RefusedPeer))
                    EDR_LOG->Error(Q_FUNC_INFO, EACCES, "Refused command connection from %s: %s", address,
                                   qUtf8Printable(why));
                continue;
            }
            EDR_LOG->Info(Q_FUNC_INFO, "%s - Connected on socket. - %u %d", address, m_clientPort.load(),
                          client.get());
            m_clientAddress = QString::fromLatin1(address);
            connectToSocket(client.get());
            client.reset();
            EDR_LOG->Trace(Q_FUNC_INFO, "Client Socket Closed. Sleep for 5 seconds");
            m_wait.sleepFor(Common::scaledMs(kPauseAfterClientMs));
        }
    } else {
        connectToSocket(fd.get());
    }
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
        const QString why = refusal(m_clientAddress, -1);
        if (!why.isEmpty()) {
            if (AuditLog::getInstance()->record(AuditLog::Listener, m_clientAddress,
                                                QByteArray(buffer, static_cast<int>(n)), std::nullopt,
                                                AuditLog::RefusedPeer))
                EDR_LOG->Error(Q_FUNC_INFO, EACCES, "Refused command from %s: %s", address,
                               qUtf8Printable(why));
            EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
            return;
        }
    }
    buffer[n] = '\0';
    EDR_LOG->Trace(Q_FUNC_INFO, "Recieved From Socket: %s", buffer);
    emit messageRecieved(m_clientAddress, QByteArray(buffer, static_cast<int>(n)));
    if (m_wait.sleepFor(Common::scaledMs(kPauseBeforeOkMs))) {
        ::send(fd, "OK", 2, MSG_NOSIGNAL);
    }
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
}
