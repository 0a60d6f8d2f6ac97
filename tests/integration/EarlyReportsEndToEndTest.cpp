// End to end: the built agent against the reference console, with host
// changes made on this machine (a loopback listener, a desktop file).

#include "core/EdrAgentConfig.h"
#include "support/AgentProcess.h"
#include "support/ConsoleProcess.h"
#include "support/TestSupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include <csignal>
#include <unistd.h>

using namespace edrtest;

namespace
{
const QString kNetwork = QStringLiteral("machineInfo/addNwMonitoring");
const QString kStartup = QStringLiteral("machineInfo/addStartupApps");

QByteArray bodyOf(const QJsonObject& request)
{
    return QJsonDocument(request.value(QStringLiteral("body")).toObject()).toJson(QJsonDocument::Compact);
}

bool mentionsPort(const QJsonObject& request, int port)
{
    return bodyOf(request).contains("\"LocalPort\":" + QByteArray::number(port) + ",");
}

// Waits for a network report naming port; returns its index or -1.
int waitForPort(const ConsoleProcess& console, int port, int from)
{
    int found = -1;
    waitUntil(
        [&] {
            const QList<QJsonObject> all = console.requests(kNetwork);
            for (int i = from; i < all.size(); ++i)
                if (mentionsPort(all.at(i), port)) {
                    found = i;
                    return true;
                }
            return false;
        },
        60000);
    return found;
}
} // namespace

TEST(EarlyReportsEndToEnd, ListenersAndAutostartEntriesReachTheServerEarlyWithinTheLimits)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    ConsoleProcess console;
    ASSERT_TRUE(console.isRunning());
    AgentProcess agent;
    // A 3 s tick: the 180-tick network interval lies far beyond this test,
    // the early report's minute is 3 s.
    agent.setEnv(QStringLiteral("EDR_AGENT_TIME_SCALE"), QStringLiteral("0.05"));
    agent.writeServerIni(console.httpPort(), console.socketPort(), 0);
    ASSERT_TRUE(agent.start({QStringLiteral("--log-level"), QStringLiteral("debug")}));
    ASSERT_TRUE(console.waitForRequests(kNetwork, 1, 60000)) << agent.log().constData();
    ASSERT_TRUE(console.waitForRequests(kStartup, 1, 60000));
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addProcesses"), 1, 60000));

    // A listener opened: the next network report has it, with the token.
    int port = 0;
    const int first = LoopbackSocket::listenOn(&port);
    ASSERT_GE(first, 0);
    const int seen = waitForPort(console, port, 1);
    ASSERT_GE(seen, 1) << agent.log().constData();
    EXPECT_FALSE(console.requests(kNetwork).at(seen).value(QStringLiteral("headers")).toArray().isEmpty());
    EXPECT_TRUE(agent.log().contains("Early report: Network_Mon (listening sockets changed)"));
    QElapsedTimer sinceFirst;
    sinceFirst.start();

    // Another right away waits out the (scaled) minute.
    int port2 = 0;
    const int second = LoopbackSocket::listenOn(&port2);
    ASSERT_GE(second, 0);
    const int seen2 = waitForPort(console, port2, seen + 1);
    ASSERT_GT(seen2, seen);
    EXPECT_GE(sinceFirst.elapsed(), 2500);

    // Switched off (read at every use): the change is dropped, not kept.
    EdrAgentConfig conf(agent.dataDir() + QStringLiteral("/agent.conf"));
    ASSERT_TRUE(conf.setSetting(QStringLiteral("Changes/EarlyReports"), QStringLiteral("off")));
    ::close(first);
    ASSERT_TRUE(agent.waitForLog("No early report of Network_Mon: early reports are off", 60000));
    const int beforeOn = console.requests(kNetwork).size();
    ASSERT_TRUE(conf.setSetting(QStringLiteral("Changes/EarlyReports"), QStringLiteral("on")));
    ::close(second);
    ASSERT_TRUE(waitUntil([&] { return console.requests(kNetwork).size() > beforeOn; }, 60000));
    const QJsonObject last = console.requests(kNetwork).at(beforeOn);
    EXPECT_FALSE(mentionsPort(last, port) || mentionsPort(last, port2));

    // A desktop file in the system autostart folder, then gone again.
    const QString desktop =
        QStringLiteral("/etc/xdg/autostart/edr-early-%1.desktop").arg(QCoreApplication::applicationPid());
    const int startupBefore = console.requests(kStartup).size();
    writeTestFile(desktop, "[Desktop Entry]\nType=Application\nName=EarlyProbe\nExec=/bin/true\n");
    const bool added = waitUntil(
        [&] {
            const QList<QJsonObject> all = console.requests(kStartup);
            return all.size() > startupBefore && bodyOf(all.last()).contains("EarlyProbe");
        },
        60000);
    QFile::remove(desktop);
    EXPECT_TRUE(added) << agent.log().constData();
    EXPECT_TRUE(agent.log().contains("Early report: StartUp (start-up entries changed)"));

    // Processes are never sent early: only the start-up run's report.
    EXPECT_EQ(console.requests(QStringLiteral("machineInfo/addProcesses")).size(), 1);
    agent.signal(SIGTERM);
    ASSERT_TRUE(agent.waitForExit(20000));
}
