#include "push/ListenerPeer.h"

#include <QByteArray>

#include <arpa/inet.h>
#include <cerrno>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

namespace
{
// The kernel reports no owner (uid 0, inode 0) for a socket that is no longer
// held by any process: an end closed already, or waiting out TIME_WAIT.
bool ownerKnown(const SockDiag::Socket& end)
{
    return end.inode != 0;
}

QByteArray bytesOf(const in_addr& a)
{
    return QByteArray(reinterpret_cast<const char*>(&a), sizeof a);
}
} // namespace

ListenerPeer::Verdict ListenerPeer::judge(bool addressAllowed, bool localAddress,
                                          const std::optional<SockDiag::Socket>& clientEnd)
{
    if (!addressAllowed)
        return Verdict::NotAllowed;
    // A client socket found on this host is local whatever its address: a
    // locally routed range need not sit on any interface.
    if (!localAddress && !clientEnd)
        return Verdict::Accepted;
    if (!clientEnd || !ownerKnown(*clientEnd))
        return Verdict::OwnerUnknown;
    return clientEnd->uid == 0 ? Verdict::Accepted : Verdict::NotRoot;
}

bool ListenerPeer::isLocalAddress(const QHostAddress& address)
{
    if (address.isLoopback())
        return true;
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0)
        return true;
    bool local = false;
    for (const ifaddrs* i = list; i && !local; i = i->ifa_next)
        if (i->ifa_addr && (i->ifa_addr->sa_family == AF_INET || i->ifa_addr->sa_family == AF_INET6))
            local = QHostAddress(i->ifa_addr).isEqual(address, QHostAddress::TolerantConversion);
    ::freeifaddrs(list);
    return local;
}

std::optional<SockDiag::Socket> ListenerPeer::clientEnd(int acceptedFd)
{
    sockaddr_in peer{};
    sockaddr_in self{};
    socklen_t peerLen = sizeof peer;
    socklen_t selfLen = sizeof self;
    if (::getpeername(acceptedFd, reinterpret_cast<sockaddr*>(&peer), &peerLen) != 0 ||
        ::getsockname(acceptedFd, reinterpret_cast<sockaddr*>(&self), &selfLen) != 0)
        return std::nullopt;
    if (peer.sin_family != AF_INET || self.sin_family != AF_INET) {
        errno = EAFNOSUPPORT;
        return std::nullopt;
    }
    // The client's end: its local side is our peer, its remote side is us.
    return SockDiag::findTcp(AF_INET, bytesOf(peer.sin_addr), ntohs(peer.sin_port), bytesOf(self.sin_addr),
                             ntohs(self.sin_port));
}

QString ListenerPeer::reason(Verdict verdict, const std::optional<SockDiag::Socket>& clientEnd)
{
    switch (verdict) {
    case Verdict::Accepted:
        return QString();
    case Verdict::NotAllowed:
        return QStringLiteral("not an allowed address");
    case Verdict::NotRoot:
        return QStringLiteral("a local user other than root (%1)")
            .arg(userName(clientEnd ? clientEnd->uid : 0));
    case Verdict::OwnerUnknown:
        break;
    }
    return QStringLiteral("a local peer whose owner cannot be found");
}

QString ListenerPeer::userName(uint32_t uid)
{
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(static_cast<size_t>(size > 0 ? size : 16384));
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(static_cast<uid_t>(uid), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
        found->pw_name && *found->pw_name)
        return QString::fromLocal8Bit(found->pw_name);
    return QStringLiteral("uid %1").arg(uid);
}
