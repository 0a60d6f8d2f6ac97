#include "core/DataDirModes.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace
{
unsigned modeOf(const QString& path)
{
    struct stat st {
    };
    return ::lstat(QFile::encodeName(path).constData(), &st) == 0 ? st.st_mode & 07777 : 0;
}

void make(const QString& path, mode_t mode)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    ASSERT_EQ(::fchmod(file.handle(), mode), 0);
}
} // namespace

// A tree left by an older version: readable by all, plus a link out of it.
TEST(DataDirModes, WideModesAreClosedUpAndLinksLeftAlone)
{
    QTemporaryDir root;
    const QString data = root.path() + "/data", outside = root.path() + "/outside";
    const QStringList dirs = {data, data + "/reports", data + "/reports/edr/pending"};
    ASSERT_TRUE(QDir().mkpath(dirs.last()));
    for (const QString& dir : dirs)
        ::chmod(QFile::encodeName(dir).constData(), 0755);
    make(data + "/agent.conf", 0644);
    make(data + "/.hidden", 0666);
    make(data + "/audit.log", 0600);
    make(data + "/reports/edr/pending/1.rpt", 0640);
    make(outside, 0644);
    ASSERT_EQ(
        ::symlink(QFile::encodeName(outside).constData(), QFile::encodeName(data + "/link").constData()), 0);

    EXPECT_EQ(DataDirModes::tighten(data), 7); // four directories, three files
    for (const QString& dir : dirs)
        EXPECT_EQ(modeOf(dir), 0700u) << qPrintable(dir);
    for (const char* file : {"/agent.conf", "/.hidden", "/audit.log", "/reports/edr/pending/1.rpt"})
        EXPECT_EQ(modeOf(data + file), 0600u) << file;
    EXPECT_EQ(modeOf(outside), 0644u);
    EXPECT_EQ(DataDirModes::tighten(data), 0);
}
