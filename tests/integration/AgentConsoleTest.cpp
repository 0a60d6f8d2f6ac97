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
    // The admin API speaks TLS too, and knows the host by that connection.
    EXPECT_TRUE(
        waitUntil([&] { return console.api("GET", "/api/hosts").json()[0]["online"].toBool(); }, 10000));
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

namespace
{
QJsonObject hostEntry(const ConsoleProcess& console, int id)
{
    for (const QJsonValue& h : console.api("GET", "/api/hosts").json().toArray())
        if (h["id"].toInt() == id)
            return h.toObject();
    return QJsonObject();
}

QJsonObject orderNow(const ConsoleProcess& console, int host, const QByteArray& order)
{
    const auto reply = console.api("POST", "/api/hosts/" + QByteArray::number(host) + "/orders", order);
    EXPECT_EQ(reply.status, 201) << reply.body.constData();
    return reply.json().toObject();
}

// Waits for the order to leave "queued" and "sent"; its last state.
QJsonObject settled(const ConsoleProcess& console, const QJsonObject& created, int timeoutMs)
{
    const QByteArray path = "/api/orders/" + QByteArray::number(created["id"].toInt());
    QJsonObject order;
    waitUntil(
        [&] {
            order = console.api("GET", path).json().toObject();
            const QString state = order["state"].toString();
            return state != QLatin1String("queued") && state != QLatin1String("sent");
        },
        timeoutMs);
    return order;
}

QStringList hostIds(const QJsonArray& found)
{
    QStringList ids;
    for (const QJsonValue& r : found)
        ids << QString::number(r["host"]["id"].toInt());
    return ids;
}
} // namespace

// Two agents against the console, seen only through its admin API: inventory,
// search, a package that appears after a report-now order, terminal and kill
// results under their order ids, an order kept for a host that is away.
TEST(AgentConsole, TwoAgentsThroughTheAdminApi)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    ConsoleProcess console;
    ASSERT_TRUE(console.isRunning());
    // A flatpak that is "installed" once the marker exists, for the first agent.
    FakeToolDir tools;
    const QString marker = tools.path() + QStringLiteral("/installed");
    tools.addScript(QStringLiteral("flatpak"),
                    "[ -e '" + QFile::encodeName(marker) +
                        "' ] && printf 'org.example.Probe\\t1.2\\t1.0 MB\\tProbe\\tA probe\\n'\nexit 0\n");
    AgentProcess first, second;
    first.setEnv(QStringLiteral("PATH"), tools.path() + QLatin1Char(':') + qEnvironmentVariable("PATH"));
    // One after the other, so the first is host 1.
    for (AgentProcess* agent : {&first, &second}) {
        const int before = console.api("GET", "/api/hosts").json().toArray().size();
        agent->writeServerIni(console.httpPort(), console.socketPort(), 0);
        ASSERT_TRUE(agent->start());
        ASSERT_TRUE(waitUntil(
            [&] { return console.api("GET", "/api/hosts").json().toArray().size() > before; }, 30000));
    }
    const QStringList wanted{"agent", "network", "services", "software"};
    const auto ready = [&](int id) {
        const QJsonObject h = hostEntry(console, id);
        for (const QString& c : wanted)
            if (!h["latest"].toObject().contains(c))
                return false;
        return h["online"].toBool();
    };
    ASSERT_TRUE(waitUntil([&] { return ready(1) && ready(2); }, 90000))
        << first.log().right(2000).constData();
    const QJsonObject host = console.api("GET", "/api/hosts/1").json().toObject();
    EXPECT_EQ(host["agentVersion"].toString(), QStringLiteral(EDR_BUILD_VERSION));
    EXPECT_FALSE(host["reports"]["software"]["InstallSoft"].toArray().isEmpty());
    EXPECT_TRUE(host["reports"]["services"]["Services"].isArray());
    EXPECT_TRUE(host["reports"]["network"].isObject());

    // Both see this machine: its dpkg and the console's own socket port.
    EXPECT_EQ(hostIds(console.api("GET", "/api/search?package=dpkg").json().toArray()),
              (QStringList{"1", "2"}));
    EXPECT_EQ(hostIds(console.api("GET", "/api/search?port=" + QByteArray::number(console.socketPort()))
                          .json()
                          .toArray()),
              (QStringList{"1", "2"}));

    writeTestFile(marker, "");
    const QJsonObject report =
        settled(console, orderNow(console, 1, R"({"kind":"report","category":"software"})"), 60000);
    EXPECT_EQ(report["state"].toString(), QStringLiteral("done"));
    EXPECT_EQ(report["text"].toString(), QStringLiteral("RPT#$#4#$#0"));
    bool added = false;
    for (const QJsonValue& c : console.api("GET", "/api/hosts/1/changes?category=software").json().toArray())
        added |= c["change"] == QStringLiteral("added") && c["key"] == QStringLiteral("org.example.Probe");
    EXPECT_TRUE(added);
    EXPECT_EQ(
        hostIds(console.api("GET", "/api/search?package=org.example.Probe&version=1.2").json().toArray()),
        QStringList{"1"});

    // Three orders posted at once: the agent would take them merged as one
    // command if they went out back to back.
    QList<QJsonObject> terminals;
    for (int i = 0; i < 3; ++i)
        terminals << orderNow(
            console, 1, R"({"kind":"terminal","command":"echo echoed-)" + QByteArray::number(i) + "\"}");
    for (int i = 0; i < 3; ++i) {
        const QJsonObject terminal = settled(console, terminals[i], 60000);
        EXPECT_EQ(terminal["state"].toString(), QStringLiteral("done")) << i;
        EXPECT_EQ(terminal["result"]["_id"].toString(), QString::number(terminal["id"].toInt()));
        EXPECT_EQ(terminal["result"]["Output"].toString(), QStringLiteral("echoed-%1\n").arg(i));
    }
    Sleeper victim;
    const QJsonObject kill = settled(
        console, orderNow(console, 2, R"({"kind":"kill","pid":)" + QByteArray::number(victim.pid()) + "}"),
        60000);
    EXPECT_EQ(kill["state"].toString(), QStringLiteral("done"));
    EXPECT_EQ(kill["result"]["status"].toInt(-1), 0);
    EXPECT_FALSE(victim.running());

    // Away: the order waits, and goes out when the agent is back.
    second.signal(SIGTERM);
    ASSERT_TRUE(second.waitForExit(15000));
    ASSERT_TRUE(waitUntil([&] { return !hostEntry(console, 2)["online"].toBool(); }, 20000));
    const QJsonObject waiting = orderNow(console, 2, R"({"kind":"report","category":"startup"})");
    EXPECT_EQ(console.api("GET", "/api/orders/" + QByteArray::number(waiting["id"].toInt())).json()["state"],
              QStringLiteral("queued"));
    ASSERT_TRUE(second.start());
    const QJsonObject delivered = settled(console, waiting, 60000);
    EXPECT_EQ(delivered["state"].toString(), QStringLiteral("done"));
    EXPECT_FALSE(delivered["sent"].toString().isEmpty());

    QStringList audited;
    for (const QJsonValue& row : console.api("GET", "/api/audit").json().toArray())
        if (row["source"] == QStringLiteral("127.0.0.1") &&
            row["outcome"].toString().startsWith("queued order "))
            audited << row["target"].toString();
    EXPECT_EQ(audited, (QStringList{"host 2", "host 2", "host 1", "host 1", "host 1", "host 1"}));
}
