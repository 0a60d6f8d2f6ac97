// The daemon closes up a data directory left readable, and `edr-agent policy`
// prints the order policy it would apply.

#include "support/AgentProcess.h"
#include "support/TestSupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>
#include <sys/stat.h>
#include <unistd.h>

using namespace edrtest;

namespace {
unsigned modeOf(const QString& path)
{
    struct stat st {};
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? st.st_mode & 07777 : 0;
}
} // namespace

TEST(SecretsAtRest, StartFixesModesAndPolicyCommandPrints)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    AgentProcess agent;
    const int closed = LoopbackSocket::freePort();
    agent.writeServerIni(closed, closed, 0);
    const QString conf = agent.dataDir() + QStringLiteral("/agent.conf");
    const QString copy = agent.dataDir() + QStringLiteral("/reports/old-request.json");
    agent.writeFile(conf, "AuthCode=tok-1\n[Policy]\nKill=deny\nUpdate=later\n");
    agent.writeFile(copy, "{\"token\":\"tok-1\"}");
    for (const QString& path : {agent.dataDir(), agent.dataDir() + QStringLiteral("/reports"), conf, copy})
        ::chmod(QFile::encodeName(path).constData(), 0755);

    ASSERT_TRUE(agent.start({QStringLiteral("policy")}));
    ASSERT_TRUE(agent.waitForExit(10000));
    EXPECT_EQ(agent.exitCode(), 0);
    const QByteArray printed = agent.standardOutput();
    EXPECT_TRUE(printed.startsWith("Terminal=allow\nOsquery=allow\nKill=deny\n")) << printed.constData();
    EXPECT_TRUE(printed.contains("Update=deny (unknown value \"later\")\n")) << printed.constData();

    ASSERT_TRUE(agent.start());
    QElapsedTimer clock;
    clock.start();
    while (modeOf(copy) != 0600u && clock.elapsed() < 20000)
        QThread::msleep(20);
    for (const QString& dir : {agent.dataDir(), agent.dataDir() + QStringLiteral("/reports")})
        EXPECT_EQ(modeOf(dir), 0700u) << qPrintable(dir);
    EXPECT_EQ(modeOf(conf), 0600u);
    EXPECT_EQ(modeOf(copy), 0600u);
    agent.signal(SIGTERM);
    EXPECT_TRUE(agent.waitForExit(10000));
    EXPECT_EQ(modeOf(agent.dataDir() + QStringLiteral("/EDR_Track.log")), 0600u);
}
