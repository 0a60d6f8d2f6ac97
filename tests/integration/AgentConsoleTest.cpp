// End to end: the built agent against the reference console on loopback,
// over TLS with a throwaway CA.

#include "comm/ApiManager.h"
#include "comm/HttpManager.h"
#include "core/EdrAgentConfig.h"
#include "push/ServerSocketThread.h"
#include "support/AgentProcess.h"
#include "support/ConsoleProcess.h"
#include "support/TestCertificates.h"
#include "support/TestSupport.h"

#include <QFile>
#include <QJsonArray>

#include <gtest/gtest.h>

#include <csignal>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace edrtest;

namespace
{
const QString kInfo = QStringLiteral("machineInfo/addMachineInfo");

QString authorization(const QJsonObject& request)
{
    for (const QJsonValue& h : request.value(QStringLiteral("headers")).toArray())
        if (h.toArray().at(0).toString().compare(QLatin1String("Authorization"), Qt::CaseInsensitive) == 0)
            return h.toArray().at(1).toString();
    return QString();
}

QByteArray tlsKeys(const QString& caFile, const QByteArray& pin)
{
    return "EDRTLS=1\nEDRCAFILE=" + QFile::encodeName(caFile) + "\n" +
           (pin.isEmpty() ? QByteArray() : "EDRPINNEDKEY=" + pin + "\n");
}

QStringList tlsArgs(const TestCertificates& c, const QString& cert)
{
    return {QStringLiteral("--tls-cert"), cert, QStringLiteral("--tls-key"), c.serverKey};
}

unsigned modeOf(const QString& path)
{
    struct stat st {
    };
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? st.st_mode & 07777 : 0;
}
} // namespace

// One agent through registration, both command channels, a server-side close,
// a stop, the one-shot commands and a restart, all over TLS (the console takes
// nothing else; the plain-server case below shows nothing goes out in clear).
TEST(AgentConsole, FullLifecycleOverTls)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    const TestCertificates* certs = TestCertificates::get();
    ASSERT_TRUE(certs);
    ConsoleProcess console(tlsArgs(*certs, certs->serverCert));
    ASSERT_TRUE(console.isRunning());
    AgentProcess agent;
    const int listenPort = LoopbackSocket::freePort();
    agent.writeServerIni(console.httpPort(), console.socketPort(), listenPort,
                         tlsKeys(certs->caFile, certs->serverPin));
    // A readable secret left by an older version, and a policy to print.
    const QString conf = agent.dataDir() + QStringLiteral("/agent.conf");
    const QString copy = agent.dataDir() + QStringLiteral("/reports/old-request.json");
    writeTestFile(conf, "[Policy]\nKill=deny\nUpdate=later\n");
    writeTestFile(copy, "{\"token\":\"tok-1\"}");
    ::chmod(QFile::encodeName(copy).constData(), 0644);

    ASSERT_TRUE(agent.start({QStringLiteral("policy")}));
    ASSERT_TRUE(agent.waitForExit(10000));
    EXPECT_EQ(agent.exitCode(), 0);
    const QByteArray policy = agent.standardOutput();
    EXPECT_TRUE(policy.startsWith("Terminal=allow\nOsquery=allow\nKill=deny\n")) << policy.constData();
    EXPECT_TRUE(policy.contains("Update=deny (unknown value \"later\")\n")) << policy.constData();

    ASSERT_TRUE(agent.start());
    ASSERT_TRUE(console.waitForRequests(kInfo, 1, 30000)) << agent.log().constData();
    const QString token = authorization(console.requests(kInfo).first());
    ASSERT_FALSE(token.isEmpty());

    // The server connection: handshake with the token, an order.
    const auto handshake = [&] { return console.connections().at(0)["handshake"].toString(); };
    ASSERT_TRUE(waitUntil([&] { return !handshake().isEmpty(); }, 30000)) << agent.log().constData();
    EXPECT_TRUE(handshake().startsWith("Connect#$#$") && handshake().endsWith("#$#$" + token))
        << qPrintable(handshake());
    ASSERT_EQ(console.push("RPT#$#$0#$#0"), 1);
    ASSERT_TRUE(console.waitForRequests(kInfo, 2, 20000));
    EXPECT_TRUE(waitUntil(
        [&] {
            return HostPaths::readFile(agent.dataDir() + QStringLiteral("/audit.log"))
                .startsWith(R"({"channel":"push","command":"RPT#$#$0#$#0","peer":"127.0.0.1","task":0,)");
        },
        10000));

    // A connection the server ends is made again after the pause.
    console.admin("POST", "/admin/close-connections");
    ASSERT_TRUE(agent.waitForLog("Lan Server Socket Closed! Sleeping for 10 seconds.", 20000));
    EXPECT_TRUE(
        waitUntil([&] { return console.connections().at(1).toObject().value("open").toBool(); }, 20000));

    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addInstallSoft"), 1, 60000));
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addStartupApps"), 1, 60000));
    agent.signal(SIGHUP);
    ASSERT_TRUE(agent.waitForExit(10000));
    EXPECT_EQ(agent.exitCode(), 0) << agent.standardError().constData();
    EXPECT_TRUE(agent.log().contains("void signal_handler(int) | Agent Service : hangup signal catched"));
    EXPECT_TRUE(modeOf(copy) == 0600u && modeOf(agent.logPath()) == 0600u);

    // `edr-agent report NAME` prints byte for byte what the daemon posted; an
    // unknown name is refused.
    const QPair<const char*, const char*> reports[] = {// name, the route whose first body is the output
                                                       {"software", "machineInfo/addInstallSoft"},
                                                       {"startup", "machineInfo/addStartupApps"},
                                                       {"registry", nullptr}};
    for (const auto& report : reports) {
        AgentProcess command;
        ASSERT_TRUE(command.start({QStringLiteral("report"), QLatin1String(report.first)}));
        ASSERT_TRUE(command.waitForExit(60000));
        EXPECT_EQ(command.exitCode(), report.second ? 0 : 1) << report.first;
        const QByteArray want = report.second ? console.requests(QLatin1String(report.second))
                                                        .first()
                                                        .value("raw_body")
                                                        .toString()
                                                        .toUtf8() +
                                                    '\n'
                                              : QByteArray();
        EXPECT_EQ(command.standardOutput(), want) << report.first;
        EXPECT_EQ(command.standardError().contains("unknown report 'registry'"), !report.second)
            << report.first;
    }
    // With no ufw to ask, the command prints the {} the agent would post.
    AgentProcess firewall;
    firewall.setEnv(QStringLiteral("PATH"), QStringLiteral("/nonexistent"));
    ASSERT_TRUE(firewall.start({QStringLiteral("report"), QStringLiteral("firewall")}));
    ASSERT_TRUE(firewall.waitForExit(60000));
    EXPECT_EQ(firewall.exitCode(), 0);
    EXPECT_EQ(firewall.standardOutput(), "{}\n");

    // A restart keeps its token, does not register again and binds its
    // listener port at once although the last run's connections linger.
    // Unscaled now: a terminal order's limit is 20 s, so a stop meets it running.
    agent.setEnv(QStringLiteral("EDR_AGENT_TIME_SCALE"), QStringLiteral("1"));
    const int infos = console.requests(kInfo).size();
    ASSERT_TRUE(agent.start());
    ASSERT_TRUE(console.waitForRequests(kInfo, infos + 1, 30000));
    EXPECT_EQ(console.requests(QStringLiteral("machineInfo/registerAgent")).size(), 1);
    EXPECT_EQ(authorization(console.requests(kInfo).last()), token);
    EXPECT_FALSE(agent.log().contains("bind Failed!"));
    const QByteArray marker = "sleep 999." + QByteArray::number(::getpid()); // unique to this run
    const QByteArray order = "RPT#$#18#$#41|bash -c \"" + marker + "; true\"";
    LoopbackSocket client(LoopbackSocket::connectTo(listenPort, 10000));
    ::send(client.fd, order.constData(), static_cast<size_t>(order.size()), MSG_NOSIGNAL);
    EXPECT_EQ(LoopbackSocket::readSome(client.fd, 10000), QByteArray("OK"));
    ASSERT_TRUE(waitUntil([&] { return livingProcesses(marker) == 2; }, 20000)); // bash and its sleep
    agent.signal(SIGTERM);
    ASSERT_TRUE(agent.waitForExit(15000));
    EXPECT_EQ(livingProcesses(marker), 0); // the whole process group ended
    EXPECT_EQ(agent.exitCode(), 0);
    EXPECT_TRUE(agent.log().contains("void signal_handler(int) | Agent Service : terminate signal catched"));
}

// Each server the agent must not trust: both channels refuse it with one
// Error line naming why, and nothing of the request reaches it.
TEST(Tls, UntrustedServersGetNothing)
{
    const TestCertificates* certs = TestCertificates::get();
    ASSERT_TRUE(certs);
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
        {"wrong host name", certs->otherNameCert, certs->caFile, {}, "IP address mismatch",
         "IP address mismatch"},
        {"expired certificate", certs->expiredCert, certs->caFile, {}, "certificate has expired",
         "certificate has expired"},
        {"wrong pin", good, certs->caFile, certs->otherPin, "does not match pinned public key",
         "does not match EDRPINNEDKEY"},
        {"plain server", {}, certs->caFile, {}, "wrong version number", "handshake timed out"},
        {"garbage CA file", good, certs->dir + "/garbage.pem", {}, "error setting certificate",
         "cannot load CA file"},
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

        QString response;
        EXPECT_FALSE(HttpManager::getInstance()->sendDataToServer(
            true, ApiManager::getAPI(AGENT_INFO), 3, {{QStringLiteral("data"), QStringLiteral("{\"a\":1}")}},
            response));
        HttpManager::getInstance()->setAuthorizationToke(QString());

        ServerSocketThread thread;
        thread.setServerIpAddress(QStringLiteral("127.0.0.1"));
        thread.setServerSocketPort(console.socketPort());
        thread.start();
        ASSERT_TRUE(thread.wait(20000));

        const QByteArray log = prefix.traceLog();
        EXPECT_TRUE(log.contains(c.httpReason)) << log.constData();
        EXPECT_TRUE(log.contains("TLS connection to 127.0.0.1:" + QByteArray::number(console.socketPort()) +
                                 " refused: "))
            << log.constData();
        EXPECT_TRUE(log.contains(c.pushReason)) << log.constData();
        // Nothing reached the console: no request, no handshake carrying the token.
        EXPECT_TRUE(console.requests().isEmpty());
        for (const QJsonValue& m : console.socketMessages())
            EXPECT_FALSE(
                m.toObject().value(QStringLiteral("text")).toString().contains(QStringLiteral("tok-secret")));
    }
}
