#include "core/CLogger.h"

#include "support/TestSupport.h"

#include <QFile>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using LOGGER::CLogger;

static QStringList linesOf(const QByteArray& log)
{
    return QString::fromUtf8(log).split('\n', Qt::SkipEmptyParts);
}

TEST(CLogger, LineFormatThresholdModeRecreationAndFallback)
{
    edrtest::ScratchPrefix prefix;
    const QString path = EDR_LOG->filePath();
    EDR_LOG->setLevel(CLogger::LEVEL_INFO);
    EDR_LOG->Trace("o", "trace");
    EDR_LOG->Debug("o", "debug");
    EDR_LOG->Info("bool HttpManager::send(int)", "sent %d of %s", 3, "x");
    EDR_LOG->Error("void f()", 2, "Failed to open %s", "a");
    const QStringList got = linesOf(prefix.traceLog());
    ASSERT_EQ(got.size(), 2);
    const QRegularExpression info(
        R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} INFO \[\d+\] bool HttpManager::send\(int\) \| sent 3 of x$)");
    EXPECT_TRUE(info.match(got[0]).hasMatch()) << qPrintable(got[0]);
    EXPECT_TRUE(got[1].contains(" ERROR ["));
    EXPECT_TRUE(got[1].endsWith("| Failed to open a (errno 2: No such file or directory)"))
        << qPrintable(got[1]);
    EXPECT_EQ(QFile::permissions(path),
              QFile::ReadOwner | QFile::WriteOwner | QFile::ReadUser | QFile::WriteUser);

    ASSERT_TRUE(QFile::remove(path));
    EDR_LOG->Info("o", "after");
    EXPECT_EQ(linesOf(prefix.traceLog()).size(), 1);

    // A file that cannot be written: the line goes to stderr, nothing fails.
    EDR_LOG->setFilePath("/nonexistent-dir/sub/EDR_Track.log");
    testing::internal::CaptureStderr();
    EDR_LOG->Info("o", "still logged");
    EXPECT_NE(testing::internal::GetCapturedStderr().find("still logged"), std::string::npos);

    CLogger::Level level = CLogger::LEVEL_INFO;
    EXPECT_TRUE(CLogger::parseLevel("DEBUG", &level) && level == CLogger::LEVEL_DEBUG);
    EXPECT_FALSE(CLogger::parseLevel("verbose", &level));
}

TEST(CLogger, ConcurrentWritersNeverInterleave)
{
    edrtest::ScratchPrefix prefix;
    constexpr int kThreads = 8, kLines = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i)
                EDR_LOG->Info("worker", "thread %d line %d end", t, i);
        });
    for (auto& th : threads)
        th.join();
    const QStringList got = linesOf(prefix.traceLog());
    ASSERT_EQ(got.size(), kThreads * kLines);
    const QRegularExpression whole(QStringLiteral(R"(\| thread \d line \d+ end$)"));
    for (const QString& line : got)
        ASSERT_TRUE(whole.match(line).hasMatch()) << qPrintable(line);
}

// Values from outside cannot start a line of their own or hide in control codes.
TEST(CLogger, ControlCharactersInMessagesAreEscaped)
{
    edrtest::ScratchPrefix prefix;
    EDR_LOG->setLevel(CLogger::LEVEL_INFO);
    const char* order = "RPT#$#18#$#1|x\n2026-01-01 00:00:00.000 ERROR [1] forged | y\r\t\x1b[2J\x7f";
    EDR_LOG->Info("void f()", "Order '%s' refused", order);
    EDR_LOG->Error("void g()", 2, "%s", "tab\there");
    const QStringList got = linesOf(prefix.traceLog());
    ASSERT_EQ(got.size(), 2) << prefix.traceLog().constData();
    EXPECT_TRUE(got[0].endsWith(
        R"(INFO [)" + got[0].section('[', 1, 1).section(']', 0, 0) +
        R"(] void f() | Order 'RPT#$#18#$#1|x\n2026-01-01 00:00:00.000 ERROR [1] forged | y\r\t\x1b[2J\x7f' refused)"))
        << qPrintable(got[0]);
    EXPECT_TRUE(got[1].endsWith(R"(| tab\there (errno 2: No such file or directory))")) << qPrintable(got[1]);
}
