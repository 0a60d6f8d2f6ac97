#include "service/ServiceHost.h"

#include "support/AgentProcess.h"
#include "support/TestSupport.h"

#include <QElapsedTimer>
#include <QDir>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <csignal>
#include <sys/stat.h>
#include <unistd.h>

using namespace edrtest;

namespace {
unsigned modeOf(const QString& path)
{
    struct stat st {};
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? (st.st_mode & 0777) : 0;
}
} // namespace

TEST(ServiceHost, RegistrationBackoffDoublesToItsCapWithJitter)
{
    EXPECT_EQ(ServiceHost::registrationDelayMs(1, 0.5), 30000);
    EXPECT_EQ(ServiceHost::registrationDelayMs(2, 0.5), 60000);
    EXPECT_EQ(ServiceHost::registrationDelayMs(5, 0.5), 480000);
    EXPECT_EQ(ServiceHost::registrationDelayMs(6, 0.5), 900000);
    EXPECT_EQ(ServiceHost::registrationDelayMs(1000, 0.5), 900000);
    EXPECT_EQ(ServiceHost::registrationDelayMs(1, 0.0), 24000);
    EXPECT_EQ(ServiceHost::registrationDelayMs(1, 1.0), 36000);
}

TEST(ServiceBinary, RefusesToRunWithoutRootSayingSoOnce)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "needs root to switch to an unprivileged user";
    const QByteArray message = "Not sufficient permission! Please run as admin or root or sudo.";
    for (const bool logWritable : {true, false}) {
        AgentProcess agent;
        QDir().mkpath(agent.dataDir());
        if (logWritable)
            for (const QString& dir : {agent.prefix(), agent.prefix() + QStringLiteral("/var"),
                                       agent.prefix() + QStringLiteral("/var/lib"), agent.dataDir()})
                ::chmod(QFile::encodeName(dir).constData(), 0777);
        ASSERT_TRUE(agent.start({}, {QStringLiteral("setpriv"), QStringLiteral("--reuid=65534"),
                                     QStringLiteral("--regid=65534"), QStringLiteral("--clear-groups")}));
        ASSERT_TRUE(agent.waitForExit(20000));
        EXPECT_EQ(agent.exitCode(), 13);
        EXPECT_EQ(agent.standardError().count(message), 1) << logWritable;
        if (!logWritable)
            continue;
        const QByteArray log = agent.log();
        EXPECT_EQ(log.count('\n'), 1) << log.constData();
        EXPECT_TRUE(log.contains(" ERROR [") && log.contains("int main(int, char**) | " + message)) << log.constData();
    }
}

class ServiceBinaryRunning : public ::testing::TestWithParam<int> {};

TEST_P(ServiceBinaryRunning, StopsOnSignalWithItsTraceLine)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    FakeHttpServer server;
    server.setReply({200, "{\"status\": true, \"token\": \"tok\"}", "application/json"});
    AgentProcess agent;
    agent.writeServerIni(server.port(), 1, 0);
    ASSERT_TRUE(agent.start());
    ASSERT_TRUE(agent.waitForLog("Successfully send agent info to server.", 20000, 2)) << agent.log().constData();
    agent.signal(GetParam());
    ASSERT_TRUE(agent.waitForExit(20000));
    EXPECT_EQ(agent.exitCode(), 0);
    const char* expected = GetParam() == SIGTERM ? "void signal_handler(int) | Agent Service : terminate signal catched"
                                                 : "void signal_handler(int) | Agent Service : hangup signal catched";
    EXPECT_TRUE(agent.log().contains(expected)) << agent.log().constData();
    EXPECT_EQ(modeOf(agent.logPath()), 0600u);
    EXPECT_EQ(modeOf(agent.dataDir() + QStringLiteral("/agent.conf")), 0600u);
}

INSTANTIATE_TEST_SUITE_P(Signals, ServiceBinaryRunning, ::testing::Values(SIGTERM, SIGHUP));

TEST(ServiceBinary, RetriesRefusedRegistrationAndStopsAtOnceMeanwhile)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    FakeHttpServer server;
    server.setReply({200, "{\"status\": false}", "application/json"});
    {
        AgentProcess agent;
        agent.setEnv(QStringLiteral("EDR_AGENT_TIME_SCALE"), QStringLiteral("0.002")); // 30 s backoff -> 60 ms
        agent.writeServerIni(server.port(), 1, 0);
        ASSERT_TRUE(agent.start());
        ASSERT_TRUE(server.waitForRequests(3, 20000));
        for (const RecordedRequest& r : server.requests())
            EXPECT_EQ(r.target, "/api/v1/machineInfo/registerAgent"); // nothing else before it succeeds
        EXPECT_FALSE(agent.log().contains("addMachineInfo"));
    }

    // Unscaled, the first backoff is at least 24 s: SIGTERM must end it at once.
    AgentProcess agent;
    agent.setEnv(QStringLiteral("EDR_AGENT_TIME_SCALE"), QStringLiteral("1"));
    agent.writeServerIni(server.port(), 1, 0);
    ASSERT_TRUE(agent.start());
    ASSERT_TRUE(agent.waitForLog("Registration failed; next attempt in", 20000));
    agent.signal(SIGTERM);
    ASSERT_TRUE(agent.waitForExit(15000));
    EXPECT_EQ(agent.exitCode(), 0);
}

TEST(ServiceBinary, SigtermDuringAStalledRegistrationEndsIt)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    FakeHttpServer server;
    server.setReply({200, "", "text/plain", true}); // accepts and never answers
    AgentProcess agent;
    agent.setEnv(QStringLiteral("EDR_AGENT_TIME_SCALE"), QStringLiteral("1"));
    agent.writeServerIni(server.port(), 1, 0);
    ASSERT_TRUE(agent.start());
    ASSERT_TRUE(server.waitForRequests(1, 20000));
    QElapsedTimer clock;
    clock.start();
    agent.signal(SIGTERM);
    ASSERT_TRUE(agent.waitForExit(15000));
    EXPECT_LT(clock.elapsed(), 5000);
    EXPECT_TRUE(agent.log().contains("Agent Service : terminate signal catched"));
}

TEST(ServiceBinary, NoServerAddressIsOneErrorThenTheBackoff)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    AgentProcess agent; // no serverip.ini: EDRIP and ACIP are NA
    agent.setEnv(QStringLiteral("EDR_AGENT_TIME_SCALE"), QStringLiteral("0.002"));
    ASSERT_TRUE(agent.start());
    ASSERT_TRUE(agent.waitForLog("Registration failed; next attempt in", 20000, 3)) << agent.log().constData();
    agent.signal(SIGTERM);
    ASSERT_TRUE(agent.waitForExit(10000));
    const QByteArray log = agent.log();
    EXPECT_EQ(log.count("No server address: EDRIP and ACIP are NA in"), 1) << log.constData();
    EXPECT_EQ(log.count(" ERROR ["), 1) << log.constData(); // no request to a host called NA
    EXPECT_EQ(agent.standardError().count("No server address"), 1);
}
