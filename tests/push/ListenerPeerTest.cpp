#include "push/ListenerPeer.h"

#include "support/TestSupport.h"

#include <QNetworkInterface>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include <netinet/in.h>
#include <sys/socket.h>

using namespace edrtest;

namespace
{
SockDiag::Socket end(uint32_t uid, uint32_t inode)
{
    SockDiag::Socket s;
    s.family = AF_INET;
    s.uid = uid;
    s.inode = inode;
    return s;
}
} // namespace

TEST(ListenerPeer, DecisionTable)
{
    using V = ListenerPeer::Verdict;
    const std::optional<SockDiag::Socket> none;
    const struct {
        const char* what;
        bool allowed, localAddress;
        std::optional<SockDiag::Socket> clientEnd;
        V verdict;
    } cases[] = {
        {"local root", true, true, end(0, 42), V::Accepted},
        {"local non-root", true, true, end(65534, 42), V::NotRoot},
        {"local root off the allow-list", false, true, end(0, 42), V::NotAllowed},
        {"local address, client already gone", true, true, none, V::OwnerUnknown},
        // An end no process holds any more is reported with uid 0: not root.
        {"local address, client closed (time-wait)", true, true, end(0, 0), V::OwnerUnknown},
        {"remote allowed", true, false, none, V::Accepted},
        {"remote refused", false, false, none, V::NotAllowed},
        {"locally routed address, non-root client", true, false, end(1000, 42), V::NotRoot},
        {"locally routed address, root client", true, false, end(0, 42), V::Accepted},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ListenerPeer::judge(c.allowed, c.localAddress, c.clientEnd), c.verdict) << c.what;

    EXPECT_EQ(ListenerPeer::reason(V::NotRoot, end(65534, 42)),
              QStringLiteral("a local user other than root (nobody)"));
    EXPECT_EQ(ListenerPeer::reason(V::NotRoot, end(4000321, 42)),
              QStringLiteral("a local user other than root (uid 4000321)"));
    EXPECT_TRUE(ListenerPeer::reason(V::Accepted, none).isEmpty());
}

TEST(ListenerPeer, LocalAddressesAreLoopbackAndEveryInterfaceAddress)
{
    EXPECT_TRUE(ListenerPeer::isLocalAddress(QHostAddress(QStringLiteral("127.0.0.1"))));
    EXPECT_TRUE(ListenerPeer::isLocalAddress(QHostAddress(QStringLiteral("127.31.4.9"))));
    EXPECT_FALSE(ListenerPeer::isLocalAddress(QHostAddress(QStringLiteral("192.0.2.77"))));
    EXPECT_FALSE(ListenerPeer::isLocalAddress(QHostAddress(QStringLiteral("0.0.0.0"))));
    for (const QHostAddress& a : QNetworkInterface::allAddresses()) {
        if (a.protocol() == QAbstractSocket::IPv4Protocol) {
            EXPECT_TRUE(ListenerPeer::isLocalAddress(a)) << qPrintable(a.toString());
        }
    }
}

// A client that closes before the listener looks leaves an end that no
// process holds: not taken, even though root opened it.
TEST(ListenerPeer, ClientGoneBeforeTheLookIsNotTaken)
{
    int port = 0;
    LoopbackSocket server(LoopbackSocket::listenOn(&port));
    ASSERT_GE(server.fd, 0);
    const auto verdictOf = [](int accepted) {
        return ListenerPeer::judge(true, true, ListenerPeer::clientEnd(accepted));
    };
    auto client = std::make_unique<LoopbackSocket>(LoopbackSocket::connectTo(port));
    LoopbackSocket accepted(LoopbackSocket::acceptOne(server.fd, 10000));
    ASSERT_GE(accepted.fd, 0);
    const auto end = ListenerPeer::clientEnd(accepted.fd);
    ASSERT_TRUE(end.has_value()) << std::strerror(errno);
    EXPECT_EQ(end->uid, ::geteuid());
    EXPECT_EQ(verdictOf(accepted.fd),
              ::geteuid() == 0 ? ListenerPeer::Verdict::Accepted : ListenerPeer::Verdict::NotRoot);
    client.reset();
    EXPECT_EQ(verdictOf(accepted.fd), ListenerPeer::Verdict::OwnerUnknown);
}
