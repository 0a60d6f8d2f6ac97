#pragma once

#include "core/SockDiag.h"

#include <QHostAddress>
#include <QString>

#include <cstdint>
#include <optional>

// Who is at the other end of a listener connection. A peer on this machine
// is obeyed only when its socket belongs to root: any other local user could
// otherwise have the agent run commands as root for it. Remote peers are
// judged by their address alone.
class ListenerPeer
{
public:
    enum class Verdict { Accepted, NotAllowed, NotRoot, OwnerUnknown };

    // The decision, from what is known of the peer: whether its address is on
    // the allow-list, whether it is one of this machine's own addresses, and
    // the client's end of the connection as the kernel knows it (nullopt when
    // no socket of this host holds it).
    static Verdict judge(bool addressAllowed, bool localAddress,
                         const std::optional<SockDiag::Socket>& clientEnd);

    // Loopback, or an address of one of this machine's interfaces. When the
    // interfaces cannot be listed every address counts as local, so the peer
    // must then show that root owns it.
    static bool isLocalAddress(const QHostAddress& address);

    // The connecting socket of an accepted TCP connection, when it lives on
    // this host; nullopt with errno set otherwise (ENOENT: no such socket).
    static std::optional<SockDiag::Socket> clientEnd(int acceptedFd);

    // The words for the refusal's log line.
    static QString reason(Verdict verdict, const std::optional<SockDiag::Socket>& clientEnd);

    // The account name of uid, or "uid N" when there is none.
    static QString userName(uint32_t uid);
};
