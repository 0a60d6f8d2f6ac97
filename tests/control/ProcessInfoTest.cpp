#include "control/ProcessInfo.h"
#include "support/TestSupport.h"

#include <QFile>

#include <gtest/gtest.h>

#include <unistd.h>

namespace {

ProcessInfo fixtureInfo()
{
    return ProcessInfo(HostPaths::fromFixtureRoot(edrtest::fixturePath(QStringLiteral("roots/processes"))));
}

TEST(ProcessInfoTest, ReadsCapturedProcesses)
{
    const ProcessInfo info = fixtureInfo();
    // The comm line keeps its line feed; cmdline is the first argument only.
    EXPECT_EQ(info.getProcessNameByPID(8854), QStringLiteral("sleep\n"));
    EXPECT_EQ(info.getProcessCommandLineByPID(8854), QStringLiteral("sleep"));
    EXPECT_EQ(info.getProcessPathByPID(8854), QStringLiteral("/usr/bin/sleep"));
    EXPECT_EQ(info.getProcessCommandLineByPID(1), QStringLiteral("/process_api"));

    // A kernel thread: empty command line, no executable.
    EXPECT_EQ(info.getProcessNameByPID(2), QStringLiteral("kthreadd\n"));
    EXPECT_EQ(info.getProcessCommandLineByPID(2), QString());
    EXPECT_TRUE(info.getProcessPathByPID(2).isNull());

    // A process that went away between listing and reading.
    EXPECT_EQ(info.getProcessNameByPID(4242), QStringLiteral("Unknown"));
    EXPECT_EQ(info.getProcessCommandLineByPID(4242), QStringLiteral("Unknown"));
    EXPECT_TRUE(info.getProcessPathByPID(4242).isNull());
    bool ok = true;
    info.readStatusFile(4242, &ok);
    EXPECT_FALSE(ok);
}

TEST(ProcessInfoTest, FirstLineText)
{
    const struct {
        QByteArray in;
        QString out;
    } cases[] = {
        {QByteArray("bash\n"), QStringLiteral("bash\n")},
        {QByteArray("a\nb\n"), QStringLiteral("a\n")},
        {QByteArray("sleep\0" "100\0", 10), QStringLiteral("sleep")},
        {QByteArray("new\nline\0arg\0", 13), QStringLiteral("new\n")},
        {QByteArray("\0x", 2), QString()},
        {QByteArray("no-end"), QStringLiteral("no-end")},
        {QByteArray(), QString()},
        {QByteArray("caf\xc3\xa9\n"), QString::fromUtf8("caf\xc3\xa9\n")},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ProcessInfo::firstLineText(c.in), c.out) << c.in.toHex().constData();
}

TEST(ProcessInfoTest, ReadsThisProcessFromTheRealProc)
{
    const ProcessInfo info;
    const int pid = static_cast<int>(::getpid());
    QFile comm(QStringLiteral("/proc/self/comm"));
    ASSERT_TRUE(comm.open(QIODevice::ReadOnly));
    EXPECT_EQ(info.getProcessNameByPID(pid), QString::fromUtf8(comm.readAll()));
    QFile cmdline(QStringLiteral("/proc/self/cmdline"));
    ASSERT_TRUE(cmdline.open(QIODevice::ReadOnly));
    EXPECT_EQ(info.getProcessCommandLineByPID(pid), QString::fromUtf8(cmdline.readAll().split('\0').first()));
    EXPECT_EQ(info.getProcessPathByPID(pid), QFile::symLinkTarget(QStringLiteral("/proc/self/exe")));
}

} // namespace
