// TLS on both channels against the reference console with a throwaway CA.

#include "comm/ApiManager.h"
#include "comm/HttpManager.h"
#include "core/EdrAgentConfig.h"
#include "push/ServerSocketThread.h"
#include "support/AgentProcess.h"
#include "support/ConsoleProcess.h"
#include "support/RecordingProxy.h"
#include "support/TestCertificates.h"
#include "support/TestSupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QSignalSpy>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>
#include <unistd.h>

using namespace edrtest;

namespace
{
QByteArray tlsKeys(const QString& caFile, const QByteArray& pin)
{
    QByteArray keys = "EDRTLS=1\nEDRCAFILE=" + QFile::encodeName(caFile) + "\n";
    if (!pin.isEmpty())
        keys += "EDRPINNEDKEY=" + pin + "\n";
    return keys;
}

QStringList tlsArgs(const TestCertificates& c, const QString& cert)
{
    return {QStringLiteral("--tls-cert"), cert, QStringLiteral("--tls-key"), c.serverKey};
}

QString firstHandshake(const ConsoleProcess& console, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < timeoutMs) {
        const QJsonArray connections = console.connections();
        for (const QJsonValue& c : connections) {
            const QString handshake = c.toObject().value(QStringLiteral("handshake")).toString();
            if (!handshake.isEmpty())
                return handshake;
        }
        QThread::msleep(50);
    }
    return QString();
}
} // namespace

TEST(Tls, ReportsAndPushGoOverTlsWithNothingInClear)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    const TestCertificates* certs = TestCertificates::get();
    ASSERT_TRUE(certs);
    ConsoleProcess console(tlsArgs(*certs, certs->serverCert));
    ASSERT_TRUE(console.isRunning());
    // The agent talks to the console through relays that keep every byte.
    RecordingProxy http(console.httpPort());
    RecordingProxy socket(console.socketPort());
    AgentProcess agent;
    agent.writeServerIni(http.port(), socket.port(), LoopbackSocket::freePort(),
                         tlsKeys(certs->caFile, certs->serverPin));
    ASSERT_TRUE(agent.start());
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addMachineInfo"), 1, 30000))
        << agent.log().constData();
    const QString handshake = firstHandshake(console, 30000);
    const QString token = EdrAgentConfig(agent.dataDir() + QStringLiteral("/agent.conf")).getAuthCode();
    ASSERT_FALSE(token.isEmpty());
    EXPECT_TRUE(handshake.startsWith(QStringLiteral("Connect#$#$"))) << qPrintable(handshake);
    EXPECT_TRUE(handshake.endsWith(QStringLiteral("#$#$") + token)) << qPrintable(handshake);

    ASSERT_EQ(console.push("RPT#$#$0#$#0"), 1);
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addMachineInfo"), 2, 20000))
        << agent.log().constData();
    // A connection the server ends is noticed and made again, over TLS.
    console.admin("POST", "/admin/close-connections");
    EXPECT_TRUE(agent.waitForLog("Connected to server socket.", 30000, 2)) << agent.log().constData();
    agent.signal(SIGTERM);
    ASSERT_TRUE(agent.waitForExit(10000));

    const QByteArray wire = http.recorded() + socket.recorded();
    EXPECT_GT(wire.size(), 2000);
    for (const QByteArray& clear :
         {token.toUtf8(), QByteArray("AgentVersion"), QByteArray("Connect#$#"), QByteArray("RPT#$#"),
          QByteArray("keep-alive"), QByteArray("machineInfo/")})
        EXPECT_FALSE(wire.contains(clear)) << clear.constData();
}

// Each server the agent must not trust: both channels refuse it with one
// Error line naming why, and nothing of the request reaches it.
TEST(Tls, UntrustedServersGetNothing)
{
    const TestCertificates* certs = TestCertificates::get();
    ASSERT_TRUE(certs);
    const QString garbageCa = certs->dir + QStringLiteral("/garbage.pem");
    {
        QFile f(garbageCa);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write("-----BEGIN CERTIFICATE-----\nnot base64 at all\n-----END CERTIFICATE-----\n");
    }
    struct Case {
        const char* name;
        QString consoleCert; // empty: a plain console
        QString caFile;
        QByteArray pin;
        const char* httpReason;
        const char* pushReason;
    };
    const QString& good = certs->serverCert;
    // clang-format off
    const Case cases[] = {
        {"wrong CA", good, certs->otherCaFile, {}, "unable to get local issuer certificate",
         "unable to get local issuer certificate"},
        {"wrong host name", certs->otherNameCert, certs->caFile, {}, "no alternative certificate subject name",
         "IP address mismatch"},
        {"expired certificate", certs->expiredCert, certs->caFile, {}, "certificate has expired",
         "certificate has expired"},
        {"wrong pin", good, certs->caFile, certs->otherPin, "does not match pinned public key",
         "does not match EDRPINNEDKEY"},
        {"plain server", {}, certs->caFile, {}, "wrong version number", "handshake timed out"},
        {"garbage CA file", good, garbageCa, {}, "error setting certificate", "cannot load CA file"},
        {"missing CA file", good, certs->dir + "/none.pem", {}, "error setting certificate", "cannot load CA file"},
        {"pin in the wrong form", good, certs->caFile, "md5//AAAA", "is not sha256//<base64>",
         "is not sha256//<base64>"},
    };
    // clang-format on
    TimeScale scale(0.05); // bounds the handshake with the plain server
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ConsoleProcess console(c.consoleCert.isEmpty() ? QStringList() : tlsArgs(*certs, c.consoleCert));
        ASSERT_TRUE(console.isRunning());
        ScratchPrefix prefix;
        prefix.pointAtServer(console.httpPort(), console.socketPort(), 0, tlsKeys(c.caFile, c.pin));
        EdrAgentConfig().setAuthCode(QStringLiteral("tok-secret"));
        HttpManager::getInstance()->setAuthorizationToke(QStringLiteral("tok-secret"));

        QString response = QStringLiteral("untouched");
        EXPECT_FALSE(HttpManager::getInstance()->sendDataToServer(
            true, ApiManager::getAPI(AGENT_INFO), 3, {{QStringLiteral("data"), QStringLiteral("{\"a\":1}")}},
            response));
        HttpManager::getInstance()->setAuthorizationToke(QString());
        EXPECT_EQ(response, QStringLiteral("untouched"));

        ServerSocketThread thread;
        thread.setServerIpAddress(QStringLiteral("127.0.0.1"));
        thread.setServerSocketPort(console.socketPort());
        QSignalSpy closed(&thread, &ServerSocketThread::socketClosed);
        thread.start();
        ASSERT_TRUE(thread.wait(20000));
        EXPECT_EQ(closed.count(), 1);
        EXPECT_FALSE(thread.getLastConnectionStatus());

        const QByteArray log = prefix.traceLog();
        EXPECT_TRUE(log.contains(c.httpReason)) << log.constData();
        EXPECT_TRUE(log.contains("TLS connection to 127.0.0.1:" + QByteArray::number(console.socketPort()) +
                                 " refused: "))
            << log.constData();
        EXPECT_TRUE(log.contains(c.pushReason)) << log.constData();
        EXPECT_FALSE(log.contains("Connected to server socket.")) << log.constData();
        EXPECT_TRUE(console.requests().isEmpty());
        const QJsonArray messages = console.socketMessages();
        for (const QJsonValue& m : messages)
            EXPECT_FALSE(
                m.toObject().value(QStringLiteral("text")).toString().contains(QStringLiteral("tok-secret")));
    }
}

// A server that accepts and never answers the handshake holds the push thread
// no longer than the handshake limit, and a stop ends the wait at once.
TEST(Tls, StalledHandshakeIsBoundedAndStoppable)
{
    const TestCertificates* certs = TestCertificates::get();
    ASSERT_TRUE(certs);
    ScratchPrefix prefix;
    int port = 0;
    LoopbackSocket server(LoopbackSocket::listenOn(&port));
    prefix.pointAtServer(LoopbackSocket::freePort(), port, 0, tlsKeys(certs->caFile, {}));
    for (const bool stop : {false, true}) {
        SCOPED_TRACE(stop ? "stopped" : "timed out");
        TimeScale scale(stop ? 1.0 : 0.05);
        ServerSocketThread thread;
        thread.setServerIpAddress(QStringLiteral("127.0.0.1"));
        thread.setServerSocketPort(port);
        thread.start();
        LoopbackSocket peer(LoopbackSocket::acceptOne(server.fd, 10000));
        ASSERT_GE(peer.fd, 0);
        if (stop) {
            ASSERT_FALSE(thread.wait(200)); // still in the handshake
            thread.requestStop();
        }
        EXPECT_TRUE(thread.wait(5000));
        EXPECT_TRUE(
            prefix.traceLog().contains(stop ? "refused: handshake stopped" : "refused: handshake timed out"))
            << prefix.traceLog().constData();
    }
}
