#include "push/PortHolder.h"

#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace edrtest;

namespace
{
void link(const QString& dir, const QString& name, const QByteArray& target)
{
    QDir().mkpath(dir);
    ASSERT_EQ(::symlink(target.constData(), QFile::encodeName(dir + QLatin1Char('/') + name).constData()), 0);
}
} // namespace

// A proc tree where two processes share socket 777, one holds a socket whose
// number merely starts the same, and entries that are no process are passed by.
TEST(PortHolder, FindsEveryProcessHoldingTheSocketWithinItsBound)
{
    QTemporaryDir root;
    const QString proc = root.path() + QStringLiteral("/proc");
    link(proc + QStringLiteral("/30/fd"), QStringLiteral("0"), "/dev/null");
    link(proc + QStringLiteral("/30/fd"), QStringLiteral("5"), "socket:[777]");
    writeTestFile(proc + QStringLiteral("/30/comm"), "python3\n");
    link(proc + QStringLiteral("/9/fd"), QStringLiteral("3"), "socket:[7770]");
    writeTestFile(proc + QStringLiteral("/9/comm"), "decoy\n");
    link(proc + QStringLiteral("/10/fd"), QStringLiteral("1"), "pipe:[777]");
    link(proc + QStringLiteral("/10/fd"), QStringLiteral("3"), "socket:[777]");
    writeTestFile(proc + QStringLiteral("/10/comm"), "nc\n");
    link(proc + QStringLiteral("/self/fd"), QStringLiteral("3"), "socket:[777]");
    QDir().mkpath(proc + QStringLiteral("/40")); // exited: no fd folder left

    const PortHolder holder(HostPaths(proc, QString(), root.path()));
    const QList<PortHolder::Process> found = holder.processesWithSocket(777);
    ASSERT_EQ(found.size(), 2);
    EXPECT_EQ(found[0].pid, 10);
    EXPECT_EQ(found[0].name, QStringLiteral("nc"));
    EXPECT_EQ(found[1].pid, 30);
    EXPECT_EQ(found[1].name, QStringLiteral("python3"));
    EXPECT_TRUE(holder.processesWithSocket(778).isEmpty());
    // Past the bound the walk gives up rather than name only some holders.
    EXPECT_TRUE(holder.processesWithSocket(777, 1).isEmpty());
    EXPECT_EQ(holder.processesWithSocket(777, 5).size(), 2);
}
