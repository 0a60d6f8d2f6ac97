#include "schedule/UpdaterLauncher.h"

#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

using edrtest::FakeToolDir;

namespace {

struct Case {
    const char* name;
    bool systemdRunning;
    bool hasSystemdRun;
    int systemdRunExit;
    UpdaterLauncher::Outcome expected;
    bool scriptRunsDetached;
};

bool waitForFile(const QString& path)
{
    for (int i = 0; i < 500 && !QFile::exists(path); ++i)
        QThread::msleep(20);
    return QFile::exists(path);
}

} // namespace

// Under systemd the script goes to systemd-run as a unit of its own; without
// systemd, without systemd-run, or when systemd-run fails it is started
// detached, so an update order is never lost.
TEST(UpdaterLauncher, PicksTransientUnitOnlyUnderSystemdAndFallsBackToDetached)
{
    const Case cases[] = {
        {"systemd", true, true, 0, UpdaterLauncher::Outcome::TransientUnit, false},
        {"no systemd", false, true, 0, UpdaterLauncher::Outcome::Detached, true},
        {"no systemd-run", true, false, 0, UpdaterLauncher::Outcome::Detached, true},
        {"systemd-run fails", true, true, 1, UpdaterLauncher::Outcome::Detached, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        QTemporaryDir root;
        if (c.systemdRunning) {
            ASSERT_TRUE(QDir().mkpath(root.path() + QStringLiteral("/run/systemd/system")));
        }
        FakeToolDir tools;
        if (c.hasSystemdRun)
            tools.addTool(QStringLiteral("systemd-run"), QByteArray(), c.systemdRunExit);
        tools.addTool(QStringLiteral("sh"), QByteArray());
        const QString marker = root.path() + QStringLiteral("/ran");
        const QString script = root.path() + QStringLiteral("/edragentupd.sh");
        QFile f(script);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write("touch '" + marker.toUtf8() + "'\n");
        f.close();

        const UpdaterLauncher launcher(HostPaths(root.path() + QStringLiteral("/proc"),
                                                 root.path() + QStringLiteral("/sys"), root.path()),
                                       tools.runner());
        EXPECT_EQ(launcher.start(script), c.expected);

        const QList<QStringList> calls = tools.invocations(QStringLiteral("systemd-run"));
        if (c.systemdRunning && c.hasSystemdRun) {
            ASSERT_EQ(calls.size(), 1);
            const QString unit = calls.first().first().mid(QStringLiteral("--unit=").size());
            EXPECT_TRUE(unit.startsWith(QStringLiteral("edr-agent-update-"))) << unit.toStdString();
            EXPECT_EQ(calls.first(), UpdaterLauncher::transientUnitArguments(unit, tools.path() + QStringLiteral("/sh"), script));
        } else {
            EXPECT_TRUE(calls.isEmpty());
        }
        if (c.scriptRunsDetached)
            EXPECT_TRUE(waitForFile(marker));
        else
            EXPECT_FALSE(QFile::exists(marker));
    }
}
