// End to end: the built agent against the reference console on loopback.

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

    // A restart with the stored token does not register again.
    agent.signal(SIGTERM);
    ASSERT_TRUE(agent.waitForExit(10000));
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
