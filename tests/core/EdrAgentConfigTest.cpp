#include "core/EdrAgentConfig.h"

#include <QFile>
#include <QSettings>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {
QString writeFile(const QTemporaryDir& dir, const QByteArray& content)
{
    const QString path = dir.path() + QStringLiteral("/agent.conf");
    QFile f(path);
    f.open(QIODevice::WriteOnly | QIODevice::Truncate);
    f.write(content);
    return path;
}
} // namespace

TEST(EdrAgentConfig, StoresValuesPrivatelyAndReadsHandWrittenOrGarbledFiles)
{
    QTemporaryDir dir;
    EdrAgentConfig config(dir.path() + QStringLiteral("/sub/agent.conf"));
    EXPECT_EQ(config.getSetting(QStringLiteral("LastSettingTime"), QStringLiteral("-")), QStringLiteral("-"));
    ASSERT_TRUE(config.setAuthCode(QStringLiteral("tok=en,with;odd chars")));
    EXPECT_EQ(config.getAuthCode(), QStringLiteral("tok=en,with;odd chars"));
    const QDateTime when(QDate(2026, 3, 4), QTime(5, 6, 7));
    ASSERT_TRUE(config.setTaskLastRunTime(QStringLiteral("AgentInfo"), when));
    EXPECT_EQ(config.getTaskLastRunTime(QStringLiteral("AgentInfo")), when);
    EXPECT_FALSE(config.getTaskLastRunTime(QStringLiteral("StartUp")).isValid());
    struct stat st {};
    ASSERT_EQ(::stat(QFile::encodeName(config.path()).constData(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    EdrAgentConfig listed(writeFile(dir, "ListenerAllow=10.0.0.0/8, 127.0.0.1\n[TaskLastRun]\nStartUp=yesterday\n"));
    EXPECT_EQ(listed.getSetting(QStringLiteral("ListenerAllow")), QStringLiteral("10.0.0.0/8,127.0.0.1"));
    EXPECT_FALSE(listed.getTaskLastRunTime(QStringLiteral("StartUp")).isValid());

    EdrAgentConfig garbled(writeFile(dir, QByteArray("\x01\xff[[[\n=\n\0AuthCode", 17)));
    EXPECT_EQ(garbled.getAuthCode(), QString());
    EXPECT_TRUE(garbled.setAuthCode(QStringLiteral("abc")));
    EXPECT_EQ(garbled.getAuthCode(), QStringLiteral("abc"));
}

// A writer killed at random moments never leaves a half-written file behind.
TEST(EdrAgentConfig, SurvivesCrashMidWrite)
{
    QTemporaryDir dir;
    const QString path = dir.path() + QStringLiteral("/agent.conf");
    const QString big(4000, QLatin1Char('x'));
    for (int round = 0; round < 5; ++round) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            EdrAgentConfig config(path);
            for (int i = 0;; ++i) {
                config.setAuthCode(big + QString::number(i));
                config.setSetting(QStringLiteral("CorporateID"), big + QString::number(i));
            }
        }
        // Kill only once the writer has produced a first complete file, so a
        // slow start on a loaded machine cannot leave nothing to read.
        for (int i = 0; i < 1000 && !QFileInfo::exists(path); ++i)
            ::usleep(10000);
        ::usleep(5000 + round * 7000);
        ::kill(child, SIGKILL);
        int status = 0;
        ::waitpid(child, &status, 0);

        EdrAgentConfig config(path);
        const QString code = config.getAuthCode();
        ASSERT_TRUE(code.startsWith(big)) << "round " << round << " left " << code.size() << " chars";
        bool numeric = false;
        code.mid(big.size()).toInt(&numeric);
        EXPECT_TRUE(numeric);
    }
}
