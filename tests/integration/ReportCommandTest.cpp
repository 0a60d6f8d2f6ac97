// `edr-agent report NAME` prints byte for byte what the daemon posts.

#include "support/AgentProcess.h"
#include "support/ConsoleProcess.h"

#include <gtest/gtest.h>

#include <csignal>
#include <unistd.h>

using namespace edrtest;

TEST(ReportCommand, PrintsTheBodyTheDaemonPosts)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    ConsoleProcess console;
    ASSERT_TRUE(console.isRunning());
    AgentProcess daemon;
    daemon.writeServerIni(console.httpPort(), console.socketPort(), 0);
    ASSERT_TRUE(daemon.start());
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addInstallSoft"), 1, 60000)) << daemon.log().constData();
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addStartupApps"), 1, 60000));
    daemon.signal(SIGTERM);
    ASSERT_TRUE(daemon.waitForExit(10000));

    const struct {
        const char* name;
        const char* route;
    } stable[] = {{"software", "machineInfo/addInstallSoft"}, {"startup", "machineInfo/addStartupApps"}};
    for (const auto& report : stable) {
        AgentProcess command;
        ASSERT_TRUE(command.start({QStringLiteral("report"), QLatin1String(report.name)}));
        ASSERT_TRUE(command.waitForExit(60000));
        EXPECT_EQ(command.exitCode(), 0) << report.name;
        const QString posted =
            console.requests(QLatin1String(report.route)).first().value(QStringLiteral("raw_body")).toString();
        EXPECT_EQ(QString::fromUtf8(command.standardOutput()), posted + QLatin1Char('\n')) << report.name;
    }

    // Without ufw the daemon still posts an empty object, so that is the output.
    AgentProcess firewall;
    firewall.setEnv(QStringLiteral("PATH"), QStringLiteral("/nonexistent"));
    ASSERT_TRUE(firewall.start({QStringLiteral("report"), QStringLiteral("firewall")}));
    ASSERT_TRUE(firewall.waitForExit(10000));
    EXPECT_EQ(firewall.exitCode(), 0);
    EXPECT_EQ(firewall.standardOutput(), "{}\n");

    AgentProcess unknown;
    ASSERT_TRUE(unknown.start({QStringLiteral("report"), QStringLiteral("registry")}));
    ASSERT_TRUE(unknown.waitForExit(10000));
    EXPECT_EQ(unknown.exitCode(), 1);
    EXPECT_TRUE(unknown.standardOutput().isEmpty());
    EXPECT_TRUE(unknown.standardError().contains("unknown report 'registry'"));
}
