#include "core/AuditLog.h"
#include "core/Common.h"
#include "core/EdrAgentConfig.h"
#include "core/HostPaths.h"
#include "push/ClientSocketThread.h"
#include "push/ListenerAllowList.h"
#include "push/ServerSocketThread.h"

#include "NobodyChild.h"
#include "support/TestCertificates.h"
#include "support/TestSupport.h"
#include "support/TlsTestPeer.h"

#include <QFile>
#include <QScopeGuard>
#include <QSignalSpy>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>

using namespace edrtest;

namespace
{
void aim(ServerSocketThread& thread, int port)
{
    thread.setServerIpAddress(QStringLiteral("127.0.0.1"));
    thread.setServerSocketPort(port);
}

// One root client: what came back before the listener closed the connection.
QByteArray exchangeAsRoot(int port, const QByteArray& text)
{
    LoopbackSocket client(LoopbackSocket::connectTo(port, 10000));
    ::send(client.fd, text.constData(), static_cast<size_t>(text.size()), MSG_NOSIGNAL);
    QByteArray reply, chunk;
    while (!(chunk = LoopbackSocket::readSome(client.fd, 5000)).isEmpty())
        reply += chunk;
    return reply;
}

void listenOn(ClientSocketThread& thread, int port)
{
    thread.setProtocol(ClientSocketThread::TCP);
    thread.setClientPort(static_cast<unsigned int>(port));
}

QByteArray tlsKeys(const TestCertificates& certs, const QByteArray& pins)
{
    return "EDRTLS=1\nEDRCAFILE=" + QFile::encodeName(certs.caFile) + "\nEDRPINNEDKEY=" + pins + "\n";
}
} // namespace

TEST(ServerSocketThread, HandshakeMessagesKeepAlivesHalfCloseAndStop)
{
    ScratchPrefix prefix;
    EdrAgentConfig().setAuthCode(QStringLiteral("tok-9"));
    TimeScale scale(0.01); // 45 s silence -> 450 ms, 1 s pause -> 10 ms
    int port = 0;
    LoopbackSocket server(LoopbackSocket::listenOn(&port));
    ServerSocketThread thread;
    aim(thread, port);
    QSignalSpy messages(&thread, &ServerSocketThread::messageRecieved);
    thread.start();

    LoopbackSocket peer(LoopbackSocket::acceptOne(server.fd, 5000));
    ASSERT_GE(peer.fd, 0);
    const QByteArray hello = LoopbackSocket::readSome(peer.fd, 5000);
    EXPECT_TRUE(hello.startsWith("Connect#$#$") && hello.endsWith("#$#$tok-9")) << hello.constData();
    EXPECT_TRUE(thread.getLastConnectionStatus());

    // Silence: a keep-alive, the connection stays.
    EXPECT_EQ(LoopbackSocket::readSome(peer.fd, 5000), QByteArray("keep-alive"));

    // A message is handed over whole, then answered by a keep-alive.
    ::send(peer.fd, "RPT#$#$7#$#0", 12, 0);
    ASSERT_TRUE(waitUntil([&] { return !messages.isEmpty(); }, 5000));
    EXPECT_EQ(messages.at(0), (QVariantList{QStringLiteral("127.0.0.1"), QByteArray("RPT#$#$7#$#0")}));
    EXPECT_EQ(LoopbackSocket::readSome(peer.fd, 5000), QByteArray("keep-alive"));

    const QByteArray big(4096, 'x');
    ::send(peer.fd, big.constData(), static_cast<size_t>(big.size()), 0);
    QByteArray received; // in as many messages as the reads cut it into
    for (int i = 1; received.size() < 4096 && waitUntil([&] { return messages.count() > i; }, 5000); ++i)
        received += messages.at(i).at(1).toByteArray();
    EXPECT_EQ(received, big);

    // The server closes only its sending side: keep-alives would still go
    // through, but the run must end.
    ::shutdown(peer.fd, SHUT_WR);
    ASSERT_TRUE(thread.wait(10000));

    // Connected again, a stop ends the run at once.
    thread.start();
    LoopbackSocket again(LoopbackSocket::acceptOne(server.fd, 5000));
    ASSERT_GE(again.fd, 0);
    LoopbackSocket::readSome(again.fd, 2000);
    thread.requestStop();
    EXPECT_TRUE(thread.wait(5000));
}

// A closed port, and a server whose full accept queue drops further SYNs:
// each ends the run; the last gives up after its (scaled) 5 s, and a stop
// meanwhile ends it without the "unreachable" line.
TEST(ServerSocketThread, UnreachableOrStalledServersEndTheRunOrAStop)
{
    ScratchPrefix prefix;
    ServerSocketThread thread;
    aim(thread, LoopbackSocket::freePort());
    thread.start();
    ASSERT_TRUE(thread.wait(5000));
    EXPECT_FALSE(thread.getLastConnectionStatus());
    EXPECT_TRUE(prefix.traceLog().contains("Socket Server is unreachable! Server: 127.0.0.1:"));
    EXPECT_FALSE(prefix.traceLog().contains("(errno 110:"));

    int port = 0;
    LoopbackSocket server(LoopbackSocket::listenOn(&port));
    ::listen(server.fd, 0); // a queue of one, filled at once
    LoopbackSocket filler(LoopbackSocket::connectTo(port));
    ASSERT_GE(filler.fd, 0);
    aim(thread, port);
    {
        TimeScale scale(0.05); // 5 s -> 250 ms
        thread.start();
        ASSERT_TRUE(thread.wait(10000));
    }
    EXPECT_TRUE(prefix.traceLog().contains("(errno 110:"));

    const int unreachable = prefix.traceLog().count("unreachable");
    const int tries = prefix.traceLog().count("Connecting to Server");
    thread.start(); // full 5 s now
    ASSERT_TRUE(waitUntil([&] { return prefix.traceLog().count("Connecting to Server") > tries; }, 5000));
    thread.requestStop();
    ASSERT_TRUE(thread.wait(3000));
    EXPECT_EQ(prefix.traceLog().count("unreachable"), unreachable);

    // Over TLS, a server that accepts and never answers the handshake holds
    // the run until a stop (its time-out is the plain-server refusal case).
    const TestCertificates* certs = TestCertificates::get();
    ASSERT_TRUE(certs);
    port = 0;
    LoopbackSocket silent(LoopbackSocket::listenOn(&port));
    prefix.pointAtServer(1, port, 0, "EDRTLS=1\nEDRCAFILE=" + QFile::encodeName(certs->caFile) + "\n");
    aim(thread, port);
    thread.clearStop();
    thread.start();
    LoopbackSocket peer(LoopbackSocket::acceptOne(silent.fd, 10000));
    ASSERT_GE(peer.fd, 0);
    ASSERT_FALSE(LoopbackSocket::readSome(peer.fd, 10000).isEmpty()); // its hello: the handshake is under way
    thread.requestStop();
    EXPECT_TRUE(thread.wait(5000));
    EXPECT_TRUE(prefix.traceLog().contains("refused: handshake stopped")) << prefix.traceLog().constData();
}

// Over TLS the push connection takes a server only with its address in the
// certificate's subjectAltName (never the CN alone) and, with several pins
// written as in serverip.ini's documentation, a key matching any one of them.
TEST(ServerSocketThread, TlsTakesOnlyTheNamedAndPinnedServer)
{
    const TestCertificates* certs = TestCertificates::get();
    ASSERT_TRUE(certs);
    const QByteArray twoPins = certs->otherPin + ';' + certs->serverPin;
    const struct {
        const char* name;
        QString cert, key;
        QByteArray pins;
        const char* refusal; // null: taken
    } cases[] = {
        {"address in subjectAltName", certs->serverCert, certs->serverKey, {}, nullptr},
        {"address in the CN only", certs->cnOnlyIpCert, certs->serverKey, {}, "IP address mismatch"},
        {"second of two pins", certs->serverCert, certs->serverKey, twoPins, nullptr},
        {"neither pin", certs->secondCert, certs->secondKey, twoPins, "does not match EDRPINNEDKEY"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScratchPrefix prefix;
        TlsTestPeer server;
        prefix.pointAtServer(1, server.port(), 0, tlsKeys(*certs, c.pins));
        ServerSocketThread thread;
        aim(thread, server.port());
        thread.start();
        server.accept(c.cert, c.key, false, 10000);
        const QByteArray hello = server.read();
        thread.requestStop();
        ASSERT_TRUE(thread.wait(10000));
        const QByteArray log = prefix.traceLog();
        EXPECT_EQ(hello.startsWith("Connect#$#$"), c.refusal == nullptr) << hello.constData();
        if (c.refusal) {
            EXPECT_TRUE(log.contains(c.refusal)) << log.constData();
        }
        const int pins = c.pins.isEmpty() ? 0 : 2;
        EXPECT_EQ(log.count("pinned keys in force (EDRPINNEDKEY): " + QByteArray::number(pins)), 1)
            << log.constData();
    }
}

// A pinned server asks for a TLS 1.2 renegotiation, having switched to a key
// the CA vouches for but the pin does not name, and sends an order right
// after: the connection is dropped and the order never handed over.
TEST(ServerSocketThread, TlsRenegotiationDropsTheConnection)
{
    const TestCertificates* certs = TestCertificates::get();
    ASSERT_TRUE(certs);
    ScratchPrefix prefix;
    TlsTestPeer server;
    prefix.pointAtServer(1, server.port(), 0, tlsKeys(*certs, certs->serverPin));
    ServerSocketThread thread;
    aim(thread, server.port());
    QSignalSpy messages(&thread, &ServerSocketThread::messageRecieved);
    thread.start();
    const auto stop = qScopeGuard([&] {
        thread.requestStop();
        thread.wait();
    });
    ASSERT_TRUE(server.accept(certs->serverCert, certs->serverKey, true, 10000));
    ASSERT_TRUE(server.read().startsWith("Connect#$#$"));
    ASSERT_TRUE(server.write("RPT#$#7#$#0"));
    ASSERT_TRUE(waitUntil([&] { return messages.count() == 1; }, 10000));

    server.requestRenegotiation(certs->secondCert, certs->secondKey);
    server.write("ACT#$#3#$#1|4242|r7");
    EXPECT_TRUE(thread.wait(10000));
    EXPECT_EQ(messages.count(), 1);
    EXPECT_TRUE(
        prefix.traceLog().contains("TLS connection to 127.0.0.1 dropped: the server asked to renegotiate"))
        << prefix.traceLog().constData();
}

// The starter clears the stop before start(); the run itself must not, or a
// stop that comes at once is lost and wait() never returns.
TEST(SocketThreads, StopRightAfterStartIsNotLost)
{
    ScratchPrefix prefix;
    int port = 0;
    LoopbackSocket server(LoopbackSocket::listenOn(&port));
    for (int i = 0; i < 20; ++i) {
        ClientSocketThread listener;
        listener.setProtocol(ClientSocketThread::TCP);
        listener.setClientPort(static_cast<unsigned int>(LoopbackSocket::freePort()));
        ServerSocketThread connection;
        aim(connection, port);
        listener.start();
        connection.start();
        listener.requestStop();
        connection.requestStop();
        ASSERT_TRUE(listener.wait(5000)) << i;
        ASSERT_TRUE(connection.wait(5000)) << i;
    }
}

// One listener run: its port taken at first (the bind is retried), a peer outside
// the allow list, then (the setting read again per client) one message per
// client answered OK, an oversized one cut, a silent client dropped and the next served.
TEST(Listener, BindRetryAllowListOneMessagePerClientAndSilentClients)
{
    ScratchPrefix prefix;
    TimeScale scale(0.01); // 60 s bind retry -> 600 ms, 10 s silence -> 100 ms
    int port = 0;
    auto blocker = std::make_unique<LoopbackSocket>(LoopbackSocket::listenOn(&port));
    ClientSocketThread thread;
    thread.setProtocol(ClientSocketThread::TCP);
    thread.setClientPort(static_cast<unsigned int>(port));
    QSignalSpy messages(&thread, &ClientSocketThread::messageRecieved);
    EdrAgentConfig().setSetting(QStringLiteral("ListenerAllow"), QStringLiteral("10.0.0.0/8, 192.0.2.7"));
    thread.start();
    const auto stop = qScopeGuard([&] {
        thread.requestStop();
        thread.wait();
    });
    ASSERT_TRUE(waitUntil([&] { return prefix.traceLog().contains("bind Failed!"); }, 5000));
    blocker.reset();
    const auto exchange = [&](const QByteArray& text) { return exchangeAsRoot(port, text); };

    EXPECT_EQ(exchange("RESET#$#TRACE_LOG"), QByteArray());
    const QByteArray audit = HostPaths::readFile(Common::getEdrDirPath() + QStringLiteral("/audit.log"));
    EXPECT_TRUE(audit.contains(R"("peer":"127.0.0.1")") && audit.contains(R"("outcome":"refused-peer")"))
        << audit.constData();

    EdrAgentConfig().setSetting(QStringLiteral("ListenerAllow"), QStringLiteral("127.0.0.1"));
    EXPECT_EQ(exchange("RESET#$#TRACE_LOG"), QByteArray("OK"));
    exchange(QByteArray(20000, 'A')); // one receive of 4096 bytes, the rest dropped (the answer may be reset)
    EXPECT_EQ(exchange(QByteArray()), QByteArray());
    EXPECT_TRUE(prefix.traceLog().contains("sent nothing; dropped"));
    EXPECT_EQ(exchange("MOD#$#AGENT_CONFIG_CHANGE"), QByteArray("OK"));
    ASSERT_EQ(messages.count(), 3);
    EXPECT_EQ(messages.at(0), (QVariantList{QStringLiteral("127.0.0.1"), QByteArray("RESET#$#TRACE_LOG")}));
    EXPECT_EQ(messages.at(1).at(1).toByteArray(), QByteArray(4096, 'A'));
    EXPECT_EQ(messages.at(2).at(1).toByteArray(), QByteArray("MOD#$#AGENT_CONFIG_CHANGE"));
}

// Another user on this machine gets nothing read and no answer, whatever the
// allow-list says and with TLS on or off; root is served throughout.
TEST(Listener, LocalUsersOtherThanRootAreRefused)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to play another user";
    ScratchPrefix prefix;
    TimeScale scale(0.01);
    const int port = LoopbackSocket::freePort();
    ClientSocketThread thread;
    listenOn(thread, port);
    QSignalSpy messages(&thread, &ClientSocketThread::messageRecieved);
    thread.start();
    const auto stop = qScopeGuard([&] {
        thread.requestStop();
        thread.wait();
    });
    const struct {
        const char* what;
        QByteArray serverKeys;
        const char* listenerAllow;
    } settings[] = {
        {"default list", {}, ""},
        {"every address allowed", {}, "0.0.0.0/0"},
        {"TLS on", "EDRTLS=1\n", ""},
    };
    // Each case a minute later: a refused address gets one line a minute.
    std::atomic<qint64> minutes{0};
    AuditLog::getInstance()->setClockForTesting([&minutes] { return minutes * 60 * 1000; });
    const auto realClock = qScopeGuard([] { AuditLog::getInstance()->setClockForTesting(nullptr); });
    for (const auto& c : settings) {
        SCOPED_TRACE(c.what);
        ++minutes;
        prefix.pointAtServer(1, 3098, port, c.serverKeys);
        EdrAgentConfig().setSetting(QStringLiteral("ListenerAllow"), QLatin1String(c.listenerAllow));
        EXPECT_EQ(exchangeAsRoot(port, QByteArray("RPT#$#18#$#1|root ") + c.what), QByteArray("OK"));
        const int refused = prefix.traceLog().count(
            "Refused command connection from 127.0.0.1: a local user other than root (nobody)");
        EXPECT_EQ(NobodyChild::sendToLoopback(port, QByteArray("RPT#$#18#$#1|nobody ") + c.what), 0);
        EXPECT_EQ(prefix.traceLog().count(
                      "Refused command connection from 127.0.0.1: a local user other than root (nobody)"),
                  refused + 1);
    }
    ASSERT_EQ(messages.count(), 3);
    for (const QList<QVariant>& m : messages)
        EXPECT_TRUE(m.at(1).toString().startsWith(QStringLiteral("RPT#$#18#$#1|root ")))
            << qPrintable(m.at(1).toString());
    const QByteArray audit = HostPaths::readFile(Common::getEdrDirPath() + QStringLiteral("/audit.log"));
    EXPECT_EQ(audit.count(R"("outcome":"refused-peer")"), 3) << audit.constData();
}

// A local user who took the port first is named in the Error line; once it
// lets go, the retried bind takes the port.
TEST(Listener, BindFailureNamesWhoHoldsThePort)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to play another user";
    ScratchPrefix prefix;
    TimeScale scale(0.01); // 60 s bind retry -> 600 ms
    const int port = LoopbackSocket::freePort();
    NobodyChild squatter([port](NobodyChild& self) {
        ::prctl(PR_SET_NAME, "squatter", 0, 0, 0);
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(fd, 1) != 0)
            return 1;
        self.ready();
        self.holdUntilReleased();
        return 0;
    });
    ASSERT_TRUE(squatter.waitReady());
    ClientSocketThread thread;
    listenOn(thread, port);
    thread.start();
    const auto stop = qScopeGuard([&] {
        thread.requestStop();
        thread.wait();
    });
    const QByteArray line = "bind Failed! Port " + QByteArray::number(port) + " is held by pid " +
                            QByteArray::number(squatter.pid()) + " (squatter) of user nobody";
    EXPECT_TRUE(waitUntil([&] { return prefix.traceLog().contains(line); }, 10000))
        << prefix.traceLog().constData();
    squatter.release();
    EXPECT_EQ(squatter.wait(), 0);
    EXPECT_EQ(exchangeAsRoot(port, "MOD#$#AGENT_CONFIG_CHANGE"), QByteArray("OK"));
}

TEST(ListenerAllowList, DefaultsAndOverrides)
{
    QStringList rejected;
    const ListenerAllowList defaults =
        ListenerAllowList::fromSettings({QStringLiteral("192.0.2.10")}, QString());
    const ListenerAllowList custom = ListenerAllowList::fromSettings(
        {QStringLiteral("192.0.2.10")}, QStringLiteral("10.1.0.0/16, 198.51.100.4,bogus, 300.1.1.1"),
        &rejected);
    EXPECT_EQ(rejected, (QStringList{QStringLiteral("bogus"), QStringLiteral("300.1.1.1")}));
    const struct {
        const char* peer;
        bool byDefault, custom;
    } cases[] = {
        {"127.0.0.1", true, false},         {"127.8.9.10", true, false},   {"192.0.2.10", true, false},
        {"::ffff:192.0.2.10", true, false}, {"192.0.2.11", false, false},  {"10.0.0.1", false, false},
        {"10.1.200.3", false, true},        {"198.51.100.4", false, true}, {"10.2.0.1", false, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(defaults.allows(QHostAddress(QLatin1String(c.peer))), c.byDefault) << c.peer;
        EXPECT_EQ(custom.allows(QHostAddress(QLatin1String(c.peer))), c.custom) << c.peer;
    }
}
