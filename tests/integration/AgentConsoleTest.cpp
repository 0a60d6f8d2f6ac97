// End to end: the built agent against the reference console on loopback, and
// `edr-agent report NAME` against what the daemon posted.

#include "support/AgentProcess.h"
#include "support/ConsoleProcess.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include <csignal>
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

class AgentConsole : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (::getuid() != 0)
            GTEST_SKIP() << "the daemon runs as root only";
        ASSERT_TRUE(console.isRunning());
        agent.writeServerIni(console.httpPort(), console.socketPort(), 0);
    }
    void TearDown() override
    {
        agent.signal(SIGTERM);
        agent.waitForExit(10000);
    }
    ConsoleProcess console;
    AgentProcess agent;
};
} // namespace

TEST_F(AgentConsole, RegistersThenReportsWithItsToken)
{
    ASSERT_TRUE(agent.start());
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addMachineInfo"), 1, 30000)) << agent.log().constData();
    const QList<QJsonObject> registration = console.requests(QStringLiteral("machineInfo/registerAgent"));
    ASSERT_EQ(registration.size(), 1);
    EXPECT_TRUE(header(registration[0], QStringLiteral("Authorization")).isEmpty());
    EXPECT_EQ(registration[0].value(QStringLiteral("body")).toObject().value(QStringLiteral("agent_id")).toString().size(), 36);

    const QJsonObject info = console.requests(QStringLiteral("machineInfo/addMachineInfo")).first();
    const QString token = header(info, QStringLiteral("Authorization"));
    EXPECT_EQ(token.size(), 32);
    EXPECT_EQ(header(info, QStringLiteral("Cookie")), QStringLiteral("AspxAutoDetectCookieSupport=1"));
    EXPECT_EQ(info.value(QStringLiteral("body")).toObject().keys(),
              (QStringList{QStringLiteral("AgentVersion"), QStringLiteral("IpAddress")}));

    // `edr-agent report NAME` prints byte for byte what the daemon posted.
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addInstallSoft"), 1, 60000));
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addStartupApps"), 1, 60000));
    agent.signal(SIGTERM);
    ASSERT_TRUE(agent.waitForExit(10000));
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

    // A restart with the stored token does not register again.
    ASSERT_TRUE(agent.start());
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addMachineInfo"), 2, 30000));
    EXPECT_EQ(console.requests(QStringLiteral("machineInfo/registerAgent")).size(), 1);
    EXPECT_EQ(header(console.requests(QStringLiteral("machineInfo/addMachineInfo")).last(), QStringLiteral("Authorization")), token);
}

TEST(AgentConsoleFaults, RefusedRegistrationOpensNothingAndRetries)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    ConsoleProcess console({QStringLiteral("--fault"), QStringLiteral("refuse")});
    ASSERT_TRUE(console.isRunning());
    AgentProcess agent;
    agent.setEnv(QStringLiteral("EDR_AGENT_TIME_SCALE"), QStringLiteral("0.002"));
    agent.writeServerIni(console.httpPort(), console.socketPort(), 0);
    ASSERT_TRUE(agent.start());
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/registerAgent"), 3, 30000));
    EXPECT_EQ(console.requests().size(), console.requests(QStringLiteral("machineInfo/registerAgent")).size());
    EXPECT_TRUE(console.connections().isEmpty());

    console.admin("POST", "/admin/fault?mode=none");
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addMachineInfo"), 1, 30000)) << agent.log().constData();
    agent.signal(SIGTERM);
    ASSERT_TRUE(agent.waitForExit(10000));
    EXPECT_EQ(agent.exitCode(), 0);
}
