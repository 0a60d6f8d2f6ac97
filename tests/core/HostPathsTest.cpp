#include "core/HostPaths.h"
#include "core/SystemInformation.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

TEST(HostPaths, ReadsProcfsToEndWithCap)
{
    bool ok = false;
    EXPECT_TRUE(HostPaths::readFile("/proc/self/status", &ok).startsWith("Name:")); // procfs says size 0
    EXPECT_TRUE(ok);
    EXPECT_EQ(HostPaths::readFile("/proc/self/status", &ok, 10).size(), 10);
    HostPaths::readFile("/nonexistent", &ok);
    EXPECT_FALSE(ok);
}

TEST(HostPaths, RegularFileReaderOpensNothingElse)
{
    QTemporaryDir dir;
    const QString file = dir.path() + "/entry";
    QFile f(file);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly) && f.write(QByteArray(100, 'x')) == 100);
    f.close();
    QByteArray data = "stale";
    EXPECT_EQ(HostPaths::readRegularFile(file, data, 64), HostPaths::FileRead::Read);
    EXPECT_EQ(data, QByteArray(64, 'x'));
    EXPECT_EQ(HostPaths::readRegularFile(dir.path() + "/none", data, 64), HostPaths::FileRead::Unreadable);
    EXPECT_TRUE(data.isEmpty());
    for (const QString& other : {dir.path(), QString("/dev/null"), QString("/proc/self/status"),
                                 QString("/sys/kernel/uevent_seqnum")})
        EXPECT_EQ(HostPaths::readRegularFile(other, data, 64), HostPaths::FileRead::NotRegular)
            << qPrintable(other);
}

TEST(SystemInformation, BootIdNeedsExactly36Bytes)
{
    QTemporaryDir dir;
    ASSERT_TRUE(QDir().mkpath(dir.path() + "/proc/sys/kernel/random"));
    const HostPaths host = HostPaths::fromFixtureRoot(dir.path());
    const auto idFrom = [&host](const QByteArray& bytes) {
        QFile f(host.proc("sys/kernel/random/boot_id"));
        EXPECT_TRUE(f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size());
        f.close();
        QString id = "unchanged";
        return SystemInformation::bootUniqueId(id, host) ? id : "failed, " + id;
    };
    EXPECT_EQ(idFrom("0123456789abcdef"), "failed, unchanged");
    EXPECT_EQ(idFrom("6a1d5c35-0b1c-4c2e-9a3f-5e2d1b7c9f00\n"), "6a1d5c35-0b1c-4c2e-9a3f-5e2d1b7c9f00");
    EXPECT_EQ(idFrom(QByteArray("6a1d5c35\0", 9) + QByteArray(27, 'x')), "6a1d5c35");
}
