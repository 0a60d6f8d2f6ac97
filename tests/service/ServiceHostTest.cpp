#include "service/ServiceHost.h"

#include "support/AgentProcess.h"
#include "support/TestSupport.h"

#include <QDir>

#include <gtest/gtest.h>

#include <csignal>
#include <sys/stat.h>
#include <unistd.h>

using namespace edrtest;

TEST(ServiceHost, RegistrationBackoffDoublesToItsCapWithJitter)
{
    EXPECT_EQ(ServiceHost::registrationDelayMs(1, 0.5), 30000);
    EXPECT_EQ(ServiceHost::registrationDelayMs(2, 0.5), 60000);
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
        ASSERT_TRUE(agent.start({}, {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"}));
        ASSERT_TRUE(agent.waitForExit(20000));
        EXPECT_EQ(agent.exitCode(), 13);
        EXPECT_EQ(agent.standardError().count(message), 1) << logWritable;
        const QByteArray log = agent.log();
        EXPECT_EQ(log.count('\n'), logWritable ? 1 : 0) << log.constData();
        EXPECT_EQ(log.contains(" ERROR [") && log.contains("int main(int, char**) | " + message),
                  logWritable);
    }
}

// Unscaled, the first backoff is at least 24 s and a silent server holds the
// request far longer, so an exit within 15 s means SIGTERM ended the wait.
TEST(ServiceBinary, SigtermEndsARegistrationWaitAtOnce)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    const CannedReply refused{200, "{\"status\": false}", "application/json"};
    const CannedReply silent{200, "", "text/plain", true};
    for (const CannedReply& reply : {refused, silent}) {
        SCOPED_TRACE(reply.silent ? "silent" : "refused");
        FakeHttpServer server;
        server.setReply(reply);
        AgentProcess agent;
        agent.setEnv(QStringLiteral("EDR_AGENT_TIME_SCALE"), QStringLiteral("1"));
        agent.writeServerIni(server.port(), 1, 0);
        ASSERT_TRUE(agent.start());
        ASSERT_TRUE(reply.silent ? server.waitForRequests(1, 20000)
                                 : agent.waitForLog("Registration failed; next attempt in", 20000));
        agent.signal(SIGTERM);
        ASSERT_TRUE(agent.waitForExit(15000));
        EXPECT_EQ(agent.exitCode(), 0);
    }
}

TEST(ServiceBinary, NoServerAddressIsOneErrorThenTheBackoff)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    AgentProcess agent; // no serverip.ini: EDRIP and ACIP are NA
    agent.setEnv(QStringLiteral("EDR_AGENT_TIME_SCALE"), QStringLiteral("0.002"));
    ASSERT_TRUE(agent.start());
    ASSERT_TRUE(agent.waitForLog("Registration failed; next attempt in", 20000, 3))
        << agent.log().constData();
    agent.signal(SIGTERM);
    ASSERT_TRUE(agent.waitForExit(10000));
    const QByteArray log = agent.log();
    EXPECT_EQ(log.count("No server address: EDRIP and ACIP are NA in"), 1) << log.constData();
    EXPECT_EQ(log.count(" ERROR ["), 1) << log.constData(); // no request to a host called NA
    EXPECT_EQ(agent.standardError().count("No server address"), 1);
}

// Out of descriptors, the signal pipe fails: the agent must say so and stop,
// not run on deaf to SIGTERM. Descriptors the test runner passes down shift
// where that happens, so the limit walks up until the pipe is what fails.
TEST(ServiceBinary, NoSignalPipeIsAnErrorAndAnExit)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    for (int limit = 4; limit <= 16; ++limit) {
        AgentProcess agent;
        const QString nofile = QString::number(limit);
        ASSERT_TRUE(
            agent.start({}, {QStringLiteral("prlimit"), QStringLiteral("--nofile=%1:%1").arg(nofile)}));
        ASSERT_TRUE(agent.waitForExit(20000))
            << "running with " << limit << " descriptors, the pipe never failed";
        if (agent.exitCode() == 127)
            continue; // the loader itself ran out
        const QByteArray said = agent.standardError() + agent.log();
        ASSERT_EQ(agent.exitCode(), 1) << said.constData();
        if (said.contains("Cannot create the signal pipe; stopping"))
            return;
    }
    FAIL() << "no descriptor limit made the signal pipe fail";
}
