// End to end: the built agent against the reference console on loopback.

#include "core/EdrAgentConfig.h"
#include "support/AgentProcess.h"
#include "support/ConsoleProcess.h"
#include "support/TestSupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace edrtest;

namespace {
QString header(const QJsonObject& request, const QString& name)
{
    const QJsonArray headers = request.value(QStringLiteral("headers")).toArray();
    for (const QJsonValue& h : headers)
        if (h.toArray().at(0).toString().compare(name, Qt::CaseInsensitive) == 0)
            return h.toArray().at(1).toString();
    return QString();
}

// Sends one command to the local listener; returns what came back.
QByteArray sendToListener(int port, const QByteArray& command)
{
    LoopbackSocket client(LoopbackSocket::connectTo(port, 10000));
    ::send(client.fd, command.constData(), static_cast<size_t>(command.size()), MSG_NOSIGNAL);
    return LoopbackSocket::readSome(client.fd, 10000);
}

bool waitFor(const std::function<bool()>& condition, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!condition() && clock.elapsed() < timeoutMs)
        QThread::msleep(20);
    return condition();
}

unsigned modeOf(const QString& path)
{
    struct stat st {};
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? st.st_mode & 07777 : 0;
}
} // namespace

// One agent through registration, both command channels, a server-side close,
// a stop, the one-shot commands and a restart.
TEST(AgentConsole, FullLifecycle)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    ConsoleProcess console;
    ASSERT_TRUE(console.isRunning());
    AgentProcess agent;
    const int listenPort = LoopbackSocket::freePort();
    agent.writeServerIni(console.httpPort(), console.socketPort(), listenPort);
    // A data directory left readable, holding a secret, and a policy to print.
    const QString conf = agent.dataDir() + QStringLiteral("/agent.conf");
    const QString copy = agent.dataDir() + QStringLiteral("/reports/old-request.json");
    agent.writeFile(conf, "[Policy]\nKill=deny\nUpdate=later\n");
    agent.writeFile(copy, "{\"token\":\"tok-1\"}");
    const QStringList dirs{agent.dataDir(), agent.dataDir() + QStringLiteral("/reports")};
    for (const QString& path : dirs + QStringList{conf, copy})
        ::chmod(QFile::encodeName(path).constData(), 0755);

    ASSERT_TRUE(agent.start({QStringLiteral("policy")}));
    ASSERT_TRUE(agent.waitForExit(10000));
    EXPECT_EQ(agent.exitCode(), 0);
    const QByteArray policy = agent.standardOutput();
    EXPECT_TRUE(policy.startsWith("Terminal=allow\nOsquery=allow\nKill=deny\n")) << policy.constData();
    EXPECT_TRUE(policy.contains("Update=deny (unknown value \"later\")\n")) << policy.constData();

    ASSERT_TRUE(agent.start());
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addMachineInfo"), 1, 30000)) << agent.log().constData();
    const QList<QJsonObject> registration = console.requests(QStringLiteral("machineInfo/registerAgent"));
    ASSERT_EQ(registration.size(), 1);
    EXPECT_TRUE(header(registration[0], QStringLiteral("Authorization")).isEmpty());
    EXPECT_EQ(registration[0].value(QStringLiteral("body")).toObject().value(QStringLiteral("agent_id")).toString().size(), 36);
    const QJsonObject info = console.requests(QStringLiteral("machineInfo/addMachineInfo")).first();
    const QString token = header(info, QStringLiteral("Authorization"));
    EXPECT_EQ(token.size(), 32);
    EXPECT_EQ(EdrAgentConfig(conf).getAuthCode(), token);
    EXPECT_EQ(header(info, QStringLiteral("Cookie")), QStringLiteral("AspxAutoDetectCookieSupport=1"));
    EXPECT_EQ(info.value(QStringLiteral("body")).toObject().keys(),
              (QStringList{QStringLiteral("AgentVersion"), QStringLiteral("IpAddress")}));
    EXPECT_TRUE(waitFor([&] { return modeOf(copy) == 0600u; }, 20000));
    for (const QString& dir : dirs)
        EXPECT_EQ(modeOf(dir), 0700u) << qPrintable(dir);
    EXPECT_EQ(modeOf(conf), 0600u);

    // The server connection: handshake with the token, an order, keep-alives.
    ASSERT_TRUE(waitFor([&] { return !console.connections().isEmpty(); }, 30000)) << agent.log().constData();
    const QString handshake = console.connections().at(0).toObject().value(QStringLiteral("handshake")).toString();
    EXPECT_TRUE(handshake.startsWith(QStringLiteral("Connect#$#$"))) << qPrintable(handshake);
    EXPECT_TRUE(handshake.endsWith(QStringLiteral("#$#$") + token)) << qPrintable(handshake);
    ASSERT_EQ(console.push("RPT#$#$0#$#0"), 1);
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addMachineInfo"), 2, 20000));
    QFile audit(agent.dataDir() + QStringLiteral("/audit.log"));
    ASSERT_TRUE(waitFor([&] { return audit.exists(); }, 10000));
    ASSERT_TRUE(audit.open(QIODevice::ReadOnly));
    EXPECT_TRUE(audit.readAll().startsWith(R"({"channel":"push","command":"RPT#$#$0#$#0","peer":"127.0.0.1","task":0,)"));
    const auto keepAlives = [&] { return console.connections().at(0).toObject().value(QStringLiteral("keep_alives")).toInt(); };
    EXPECT_TRUE(waitFor([&] { return keepAlives() >= 3; }, 10000)) << keepAlives();

    // The listener answers OK to anything, garbage included.
    EXPECT_EQ(sendToListener(listenPort, QByteArray(5000, '\x01')), QByteArray("OK"));
    EXPECT_EQ(sendToListener(listenPort, "rpt#$#0"), QByteArray("OK"));
    EXPECT_EQ(sendToListener(listenPort, "RPT#$#x"), QByteArray("OK"));
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addMachineInfo"), 3, 20000));
    // A terminal order at its (scaled) limit is killed with its grandchild.
    EXPECT_EQ(sendToListener(listenPort, "RPT#$#18#$#31|bash -c \"sleep 999.3125; true\""), QByteArray("OK"));
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("cmdAndPS/cmdOutput"), 1, 20000)) << agent.log().constData();
    EXPECT_EQ(console.requests(QStringLiteral("cmdAndPS/cmdOutput")).at(0).value(QStringLiteral("body")).toObject().value(QStringLiteral("status")).toInt(), 1);
    EXPECT_EQ(livingProcesses("sleep 999.3125"), 0);

    // A connection the server ends is made again after the pause.
    console.admin("POST", "/admin/close-connections");
    ASSERT_TRUE(agent.waitForLog("Lan Server Socket Closed! Sleeping for 10 seconds.", 20000));
    ASSERT_TRUE(waitFor([&] { return console.connections().size() >= 2; }, 20000));
    EXPECT_TRUE(console.connections().at(1).toObject().value(QStringLiteral("open")).toBool());

    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addInstallSoft"), 1, 60000));
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addStartupApps"), 1, 60000));
    agent.signal(SIGHUP);
    ASSERT_TRUE(agent.waitForExit(10000));
    EXPECT_EQ(agent.exitCode(), 0);
    EXPECT_TRUE(agent.log().contains("void signal_handler(int) | Agent Service : hangup signal catched"));
    EXPECT_EQ(modeOf(agent.logPath()), 0600u);

    // `edr-agent report NAME` prints byte for byte what the daemon posted.
    const QPair<const char*, const char*> stable[] = {{"software", "machineInfo/addInstallSoft"},
                                                      {"startup", "machineInfo/addStartupApps"}};
    for (const auto& report : stable) {
        AgentProcess command;
        ASSERT_TRUE(command.start({QStringLiteral("report"), QLatin1String(report.first)}));
        ASSERT_TRUE(command.waitForExit(60000));
        EXPECT_EQ(command.exitCode(), 0) << report.first;
        const QString posted = console.requests(QLatin1String(report.second)).first().value("raw_body").toString();
        EXPECT_EQ(QString::fromUtf8(command.standardOutput()), posted + QLatin1Char('\n')) << report.first;
    }
    // Without ufw the daemon still posts an empty object, so that is the output; an unknown name is refused.
    AgentProcess firewall, unknown;
    firewall.setEnv(QStringLiteral("PATH"), QStringLiteral("/nonexistent"));
    ASSERT_TRUE(firewall.start({QStringLiteral("report"), QStringLiteral("firewall")}));
    ASSERT_TRUE(unknown.start({QStringLiteral("report"), QStringLiteral("registry")}));
    ASSERT_TRUE(firewall.waitForExit(10000) && unknown.waitForExit(10000));
    EXPECT_EQ(firewall.exitCode(), 0);
    EXPECT_EQ(firewall.standardOutput(), "{}\n");
    EXPECT_EQ(unknown.exitCode(), 1);
    EXPECT_TRUE(unknown.standardOutput().isEmpty());
    EXPECT_TRUE(unknown.standardError().contains("unknown report 'registry'"));

    // A restart keeps its token, does not register again and binds its
    // listener port at once although the last run's connections linger.
    const int infos = console.requests(QStringLiteral("machineInfo/addMachineInfo")).size();
    ASSERT_TRUE(agent.start());
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addMachineInfo"), infos + 1, 30000));
    EXPECT_EQ(console.requests(QStringLiteral("machineInfo/registerAgent")).size(), 1);
    EXPECT_EQ(header(console.requests(QStringLiteral("machineInfo/addMachineInfo")).last(), QStringLiteral("Authorization")), token);
    EXPECT_EQ(sendToListener(listenPort, "MOD#$#AGENT_CONFIG_CHANGE"), QByteArray("OK"));
    EXPECT_TRUE(agent.waitForLog("Agent Config!", 20000));
    EXPECT_FALSE(agent.log().contains("bind Failed!"));
    agent.signal(SIGTERM);
    ASSERT_TRUE(agent.waitForExit(10000));
    EXPECT_EQ(agent.exitCode(), 0);
    EXPECT_TRUE(agent.log().contains("void signal_handler(int) | Agent Service : terminate signal catched"));
}

TEST(AgentConsole, StopDuringATerminalOrderEndsItsProcessGroup)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    ConsoleProcess console;
    ASSERT_TRUE(console.isRunning());
    AgentProcess agent;
    agent.setEnv(QStringLiteral("EDR_AGENT_TIME_SCALE"), QStringLiteral("1")); // a 20 s limit
    const int listenPort = LoopbackSocket::freePort();
    agent.writeServerIni(console.httpPort(), console.socketPort(), listenPort);
    ASSERT_TRUE(agent.start());
    const QByteArray marker = "sleep 999." + QByteArray::number(::getpid()); // unique to this run
    EXPECT_EQ(sendToListener(listenPort, "RPT#$#18#$#41|bash -c \"" + marker + "; true\""), QByteArray("OK"));
    ASSERT_TRUE(waitFor([&] { return livingProcesses(marker) == 2; }, 20000)); // bash and its sleep
    agent.signal(SIGTERM);
    ASSERT_TRUE(agent.waitForExit(15000));
    EXPECT_EQ(livingProcesses(marker), 0);
}
