#include "core/EdrAgentConfig.h"

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

TEST(EdrAgentConfig, StoresValuesPrivatelyAndReadsHandWrittenOrGarbledFiles)
{
    QTemporaryDir dir;
    EdrAgentConfig config(dir.path() + "/sub/agent.conf");
    ASSERT_TRUE(config.setAuthCode("tok=en,with;odd chars"));
    EXPECT_EQ(config.getAuthCode(), "tok=en,with;odd chars");
    const QDateTime when(QDate(2026, 3, 4), QTime(5, 6, 7));
    ASSERT_TRUE(config.setTaskLastRunTime("AgentInfo", when));
    EXPECT_EQ(config.getTaskLastRunTime("AgentInfo"), when);
    EXPECT_EQ(QFile::permissions(config.path()),
              QFile::ReadOwner | QFile::WriteOwner | QFile::ReadUser | QFile::WriteUser);

    const auto written = [&config](const QByteArray& content) { // by hand, over the file above
        QFile f(config.path());
        EXPECT_TRUE(f.open(QIODevice::WriteOnly) && f.write(content) == content.size());
        return config.path();
    };
    EdrAgentConfig listed(written("ListenerAllow=10.0.0.0/8, 127.0.0.1\n[TaskLastRun]\nStartUp=yesterday\n"));
    EXPECT_EQ(listed.getSetting("ListenerAllow"), "10.0.0.0/8,127.0.0.1");
    EXPECT_FALSE(listed.getTaskLastRunTime("StartUp").isValid());

    EdrAgentConfig garbled(written(QByteArray("\x01\xff[[[\n=\n\0AuthCode", 17)));
    EXPECT_EQ(garbled.getAuthCode(), QString());
    EXPECT_TRUE(garbled.setAuthCode("abc"));
    EXPECT_EQ(garbled.getAuthCode(), "abc");
}

// A writer killed at random moments never leaves a half-written file behind.
TEST(EdrAgentConfig, SurvivesCrashMidWrite)
{
    QTemporaryDir dir;
    const QString path = dir.path() + "/agent.conf";
    const QString big(4000, 'x');
    for (int round = 0; round < 5; ++round) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            EdrAgentConfig config(path);
            for (int i = 0;; ++i) {
                config.setAuthCode(big + QString::number(i));
                config.setSetting("CorporateID", big + QString::number(i));
            }
        }
        // Kill only once the writer has produced a first complete file (not the
        // empty one that fixes the mode), so a slow start leaves something to read.
        for (int i = 0; i < 1000 && QFileInfo(path).size() == 0; ++i)
            ::usleep(10000);
        ::usleep(5000 + round * 7000);
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);

        const QString code = EdrAgentConfig(path).getAuthCode();
        ASSERT_TRUE(code.startsWith(big)) << "round " << round << " left " << code.size() << " chars";
        EXPECT_EQ(QString::number(code.mid(big.size()).toInt()), code.mid(big.size())); // a whole number
    }
}
