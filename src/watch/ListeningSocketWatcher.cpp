#include "watch/ListeningSocketWatcher.h"

#include "core/CLogger.h"
#include "core/Common.h"

#include <QTimer>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <tuple>

bool ListeningSocketWatcher::Key::operator<(const Key& o) const
{
    return std::tie(protocol, family, port, address) < std::tie(o.protocol, o.family, o.port, o.address);
}

bool ListeningSocketWatcher::Key::operator==(const Key& o) const
{
    return protocol == o.protocol && family == o.family && port == o.port && address == o.address;
}

ListeningSocketWatcher::ListeningSocketWatcher(int task, QObject* parent, Dump dump)
    : ChangeWatcher(task, parent), m_dump(dump ? std::move(dump) : Dump(&SockDiag::dump)),
      m_timer(new QTimer(this))
{
    connect(m_timer, &QTimer::timeout, this, &ListeningSocketWatcher::poll);
}

bool ListeningSocketWatcher::start()
{
    m_last = read();
    if (!m_last)
        return false;
    m_timer->start(Common::scaledMs(kPollMs));
    return true;
}

void ListeningSocketWatcher::stop()
{
    m_timer->stop();
}

void ListeningSocketWatcher::addToSet(Set& set, uint8_t protocol,
                                      const std::vector<SockDiag::Socket>& sockets)
{
    set.reserve(set.size() + sockets.size());
    for (const SockDiag::Socket& s : sockets) {
        Key k;
        k.protocol = protocol;
        k.family = s.family;
        k.port = s.localPort;
        std::memcpy(k.address.data(), s.localAddress.constData(),
                    std::min<size_t>(k.address.size(), static_cast<size_t>(s.localAddress.size())));
        set.push_back(k);
    }
}

void ListeningSocketWatcher::normalise(Set& set)
{
    std::sort(set.begin(), set.end());
    set.erase(std::unique(set.begin(), set.end()), set.end());
}

std::optional<ListeningSocketWatcher::Set> ListeningSocketWatcher::read()
{
    static const struct {
        int family;
        int protocol;
        uint32_t states;
    } kAsks[] = {
        {AF_INET, IPPROTO_TCP, SockDiag::stateBit(SockDiag::Listen)},
        {AF_INET6, IPPROTO_TCP, SockDiag::stateBit(SockDiag::Listen)},
        {AF_INET, IPPROTO_UDP, SockDiag::stateBit(SockDiag::Close)},
        {AF_INET6, IPPROTO_UDP, SockDiag::stateBit(SockDiag::Close)},
    };
    Set set;
    for (const auto& ask : kAsks) {
        std::optional<std::vector<SockDiag::Socket>> sockets = m_dump(ask.family, ask.protocol, ask.states);
        if (!sockets) {
            // A host without IPv6 answers that family with an error: nothing listens there.
            if (ask.family == AF_INET6 && (errno == ENOENT || errno == EAFNOSUPPORT))
                continue;
            if (!m_reportedFailure) {
                m_reportedFailure = true;
                EDR_LOG->Info(Q_FUNC_INFO,
                              "Listening sockets cannot be read from the kernel (errno %d: %s); "
                              "Network_Mon keeps its schedule until they can",
                              errno, std::strerror(errno));
            }
            return std::nullopt;
        }
        addToSet(set, static_cast<uint8_t>(ask.protocol), *sockets);
    }
    normalise(set);
    return set;
}

void ListeningSocketWatcher::poll()
{
    std::optional<Set> now = read();
    if (!now)
        return;
    const bool differs = m_last && *m_last != *now;
    m_last = std::move(now);
    if (differs)
        notifyChanged(QStringLiteral("listening sockets changed"));
}
