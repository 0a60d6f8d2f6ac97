#include "core/HostPaths.h"
#include "core/SystemInformation.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

TEST(HostPaths, ReadsProcfsToEndWithCap)
{
    bool ok = false;
    const QByteArray status = HostPaths::readFile(QStringLiteral("/proc/self/status"), &ok);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(status.startsWith("Name:")); // procfs reports size 0 but has content
    EXPECT_EQ(HostPaths::readFile(QStringLiteral("/proc/self/status"), &ok, 10).size(), 10);
    HostPaths::readFile(QStringLiteral("/nonexistent"), &ok);
    EXPECT_FALSE(ok);
}

TEST(SystemInformation, BootIdNeedsExactly36Bytes)
{
    QTemporaryDir dir;
    QDir().mkpath(dir.path() + QStringLiteral("/proc/sys/kernel/random"));
    const HostPaths host = HostPaths::fromFixtureRoot(dir.path());
    auto writeId = [&](const QByteArray& bytes) {
        QFile f(host.proc(QStringLiteral("sys/kernel/random/boot_id")));
        f.open(QIODevice::WriteOnly | QIODevice::Truncate);
        f.write(bytes);
    };
    QString id = QStringLiteral("unchanged");
    EXPECT_FALSE(SystemInformation::bootUniqueId(id, host));
    writeId("0123456789abcdef");
    EXPECT_FALSE(SystemInformation::bootUniqueId(id, host));
    EXPECT_EQ(id, QStringLiteral("unchanged"));
    writeId("6a1d5c35-0b1c-4c2e-9a3f-5e2d1b7c9f00\n");
    EXPECT_TRUE(SystemInformation::bootUniqueId(id, host));
    EXPECT_EQ(id, QStringLiteral("6a1d5c35-0b1c-4c2e-9a3f-5e2d1b7c9f00"));
    writeId(QByteArray("6a1d5c35\0", 9) + QByteArray(27, 'x'));
    EXPECT_TRUE(SystemInformation::bootUniqueId(id, host));
    EXPECT_EQ(id, QStringLiteral("6a1d5c35"));

    QString real;
    EXPECT_TRUE(SystemInformation::bootUniqueId(real));
    EXPECT_EQ(real.size(), 36);
}
