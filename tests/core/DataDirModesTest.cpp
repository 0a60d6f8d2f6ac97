#include "core/DataDirModes.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {
unsigned modeOf(const QString& path)
{
    struct stat st {};
    return ::lstat(QFile::encodeName(path).constData(), &st) == 0 ? st.st_mode & 07777 : 0;
}

void make(const QString& path, mode_t mode)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("secret");
    file.close();
    ::chmod(QFile::encodeName(path).constData(), mode);
}
} // namespace

// A tree left by an older version: readable by all, plus a link out of it.
TEST(DataDirModes, WideModesAreClosedUpAndLinksLeftAlone)
{
    QTemporaryDir root;
    const QString data = root.path() + QStringLiteral("/data");
    const QString pending = data + QStringLiteral("/reports/edr/pending");
    ASSERT_TRUE(QDir().mkpath(pending));
    for (const QString& dir : {data, data + QStringLiteral("/reports"), pending})
        ::chmod(QFile::encodeName(dir).constData(), 0755);
    make(data + QStringLiteral("/agent.conf"), 0644);
    make(data + QStringLiteral("/.hidden"), 0666);
    make(data + QStringLiteral("/audit.log"), 0600);
    make(pending + QStringLiteral("/1.rpt"), 0640);
    const QString outside = root.path() + QStringLiteral("/outside");
    make(outside, 0644);
    ASSERT_EQ(::symlink(QFile::encodeName(outside).constData(),
                        QFile::encodeName(data + QStringLiteral("/link")).constData()),
              0);

    EXPECT_EQ(DataDirModes::tighten(data), 7); // four directories, three files
    for (const QString& dir : {data, data + QStringLiteral("/reports"), pending})
        EXPECT_EQ(modeOf(dir), 0700u) << qPrintable(dir);
    for (const char* file : {"/agent.conf", "/.hidden", "/audit.log", "/reports/edr/pending/1.rpt"})
        EXPECT_EQ(modeOf(data + QString::fromLatin1(file)), 0600u) << file;
    EXPECT_EQ(modeOf(outside), 0644u);
    EXPECT_EQ(DataDirModes::tighten(data), 0);
}
