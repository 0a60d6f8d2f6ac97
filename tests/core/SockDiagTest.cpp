#include "core/SockDiag.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

namespace
{
QByteArray loopback()
{
    const in_addr_t a = htonl(INADDR_LOOPBACK);
    return QByteArray(reinterpret_cast<const char*>(&a), 4);
}

// A listening socket on 127.0.0.1 and an ephemeral port.
int listenOnLoopback(uint16_t* port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 4) != 0)
        return -1;
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    *port = ntohs(addr.sin_port);
    return fd;
}

ino_t inodeOf(int fd)
{
    struct stat st {
    };
    ::fstat(fd, &st);
    return st.st_ino;
}

QByteArray message(uint16_t type, uint16_t flags, const void* payload, size_t size)
{
    QByteArray out(static_cast<int>(NLMSG_SPACE(size)), '\0');
    nlmsghdr h{};
    h.nlmsg_len = static_cast<uint32_t>(NLMSG_LENGTH(size));
    h.nlmsg_type = type;
    h.nlmsg_flags = flags;
    std::memcpy(out.data(), &h, sizeof h);
    std::memcpy(out.data() + NLMSG_HDRLEN, payload, size);
    return out;
}
} // namespace

TEST(SockDiagTest, SeesListenersAndTellsWhoOwnsEachEndOfAConnection)
{
    uint16_t port = 0;
    const int listener = listenOnLoopback(&port);
    ASSERT_GE(listener, 0);

    const auto listening = SockDiag::dump(AF_INET, IPPROTO_TCP, SockDiag::stateBit(SockDiag::Listen));
    ASSERT_TRUE(listening.has_value()) << std::strerror(errno);
    bool seen = false;
    for (const SockDiag::Socket& s : *listening) {
        EXPECT_EQ(s.state, SockDiag::Listen);
        if (s.localPort == port && s.localAddress == loopback()) {
            EXPECT_EQ(s.inode, inodeOf(listener));
            seen = true;
        }
    }
    EXPECT_TRUE(seen);

    // A client owned by another user: the kernel's answer names its uid,
    // while this end of the same connection is ours.
    int ready[2];
    int release[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(release), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0)
            ::_exit(2);
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
            ::_exit(3);
        char c = 'x';
        (void)!::write(ready[1], &c, 1);
        (void)!::read(release[0], &c, 1);
        ::_exit(0);
    }
    char c;
    ASSERT_EQ(::read(ready[0], &c, 1), 1);
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    const int accepted = ::accept(listener, reinterpret_cast<sockaddr*>(&peer), &len);
    ASSERT_GE(accepted, 0);
    const QByteArray peerAddress(reinterpret_cast<const char*>(&peer.sin_addr), 4);

    const auto client = SockDiag::findTcp(AF_INET, peerAddress, ntohs(peer.sin_port), loopback(), port);
    ASSERT_TRUE(client.has_value()) << std::strerror(errno);
    EXPECT_EQ(client->uid, 65534u);
    const auto server = SockDiag::findTcp(AF_INET, loopback(), port, peerAddress, ntohs(peer.sin_port));
    ASSERT_TRUE(server.has_value());
    EXPECT_EQ(server->uid, ::geteuid());
    EXPECT_EQ(server->inode, inodeOf(accepted));

    EXPECT_FALSE(SockDiag::findTcp(AF_INET, loopback(), 1, loopback(), 1).has_value());
    EXPECT_EQ(errno, ENOENT);

    (void)!::write(release[1], &c, 1);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    for (int fd : {accepted, listener, ready[0], ready[1], release[0], release[1]})
        ::close(fd);
}

TEST(SockDiagTest, ReplyParserStopsAtEveryCutAndReportsKernelErrors)
{
    inet_diag_msg msg{};
    msg.idiag_family = AF_INET;
    msg.idiag_state = SockDiag::Listen;
    msg.id.idiag_sport = htons(3097);
    msg.idiag_uid = 42;
    msg.idiag_inode = 777;
    const int done = 0;
    const QByteArray reply = message(SOCK_DIAG_BY_FAMILY, NLM_F_MULTI, &msg, sizeof msg) +
                             message(SOCK_DIAG_BY_FAMILY, NLM_F_MULTI, &msg, sizeof msg) +
                             message(NLMSG_DONE, NLM_F_MULTI, &done, sizeof done);

    std::vector<SockDiag::Socket> out;
    ASSERT_EQ(SockDiag::parseReply(reply.constData(), static_cast<size_t>(reply.size()), &out),
              SockDiag::Parsed::Done);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[1].localPort, 3097);
    EXPECT_EQ(out[1].uid, 42u);
    EXPECT_EQ(out[1].inode, 777u);

    // A cut reply never reads past its end nor claims the dump is over.
    for (int cut = 0; cut < reply.size() - static_cast<int>(NLMSG_SPACE(sizeof done)); ++cut) {
        std::vector<SockDiag::Socket> partial;
        const QByteArray head = reply.left(cut);
        EXPECT_NE(SockDiag::parseReply(head.constData(), static_cast<size_t>(cut), &partial),
                  SockDiag::Parsed::Done)
            << cut;
        EXPECT_LE(partial.size(), 2u);
    }

    nlmsgerr err{};
    err.error = -EPERM;
    const QByteArray refused = message(NLMSG_ERROR, 0, &err, sizeof err);
    int error = 0;
    EXPECT_EQ(SockDiag::parseReply(refused.constData(), static_cast<size_t>(refused.size()), &out, &error),
              SockDiag::Parsed::Failed);
    EXPECT_EQ(error, EPERM);
}
