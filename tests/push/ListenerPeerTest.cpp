#include "push/ListenerPeer.h"

#include "NobodyChild.h"
#include "support/TestSupport.h"

#include <QNetworkInterface>

#include <gtest/gtest.h>

#include <cstring>

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

// The accepted end of the next connection on listenFd.
int acceptNext(int listenFd)
{
    return LoopbackSocket::acceptOne(listenFd, 10000);
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

// The kernel's word on who opened the connecting socket: root, another user,
// and a client that closed before anyone looked.
TEST(ListenerPeer, ClientEndTellsWhoConnected)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to play another user";
    int port = 0;
    LoopbackSocket server(LoopbackSocket::listenOn(&port));
    ASSERT_GE(server.fd, 0);
    const auto verdictOf = [](int accepted) {
        const auto clientEnd = ListenerPeer::clientEnd(accepted);
        return ListenerPeer::judge(true, true, clientEnd);
    };

    LoopbackSocket rootClient(LoopbackSocket::connectTo(port));
    LoopbackSocket rootAccepted(acceptNext(server.fd));
    ASSERT_GE(rootAccepted.fd, 0);
    const auto rootEnd = ListenerPeer::clientEnd(rootAccepted.fd);
    ASSERT_TRUE(rootEnd.has_value()) << std::strerror(errno);
    EXPECT_EQ(rootEnd->uid, 0u);
    EXPECT_EQ(verdictOf(rootAccepted.fd), ListenerPeer::Verdict::Accepted);

    NobodyChild nobody([port](NobodyChild& self) {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
            return 1;
        self.ready();
        self.holdUntilReleased();
        return 0;
    });
    ASSERT_TRUE(nobody.waitReady());
    LoopbackSocket nobodyAccepted(acceptNext(server.fd));
    ASSERT_GE(nobodyAccepted.fd, 0);
    EXPECT_EQ(verdictOf(nobodyAccepted.fd), ListenerPeer::Verdict::NotRoot);
    // A client that closed before the look is not taken, whoever it was.
    nobody.release();
    EXPECT_EQ(nobody.wait(), 0);
    EXPECT_EQ(verdictOf(nobodyAccepted.fd), ListenerPeer::Verdict::OwnerUnknown);
    ::close(rootClient.fd);
    rootClient.fd = -1;
    EXPECT_EQ(verdictOf(rootAccepted.fd), ListenerPeer::Verdict::OwnerUnknown);
}
