#include "schedule/UpdaterLauncher.h"

#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using edrtest::FakeToolDir;

// Under systemd the script goes to systemd-run as a unit of its own; without
// systemd, without systemd-run, or when systemd-run fails it is started
// detached, so an update order is never lost.
TEST(UpdaterLauncher, PicksTransientUnitOnlyUnderSystemdAndFallsBackToDetached)
{
    const struct {
        const char* name;
        bool systemdRunning;
        bool hasSystemdRun;
        int systemdRunExit;
        UpdaterLauncher::Outcome expected;
    } cases[] = {
        {"systemd", true, true, 0, UpdaterLauncher::Outcome::TransientUnit},
        {"no systemd", false, true, 0, UpdaterLauncher::Outcome::Detached},
        {"no systemd-run", true, false, 0, UpdaterLauncher::Outcome::Detached},
        {"systemd-run fails", true, true, 1, UpdaterLauncher::Outcome::Detached},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        QTemporaryDir root;
        if (c.systemdRunning)
            ASSERT_TRUE(QDir().mkpath(root.path() + QStringLiteral("/run/systemd/system")));
        FakeToolDir tools;
        if (c.hasSystemdRun)
            tools.addTool(QStringLiteral("systemd-run"), QByteArray(), c.systemdRunExit);
        tools.addTool(QStringLiteral("sh"), QByteArray());
        // A detached run is the system's sh with the script's path as $0.
        const QString marker = root.path() + QStringLiteral("/ran");
        const QString script = root.path() + QStringLiteral("/edragentupd.sh");
        QFile f(script);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly) &&
                    f.write("printf '%s' \"$0\" > \"$0.tmp\" && mv \"$0.tmp\" '" + marker.toUtf8() + "'\n") > 0);
        f.close();

        const UpdaterLauncher launcher(HostPaths(root.path() + "/proc", root.path() + "/sys", root.path()),
                                       tools.runner());
        EXPECT_EQ(launcher.start(script), c.expected);

        const QList<QStringList> calls = tools.invocations(QStringLiteral("systemd-run"));
        if (c.systemdRunning && c.hasSystemdRun) {
            ASSERT_EQ(calls.size(), 1);
            const QString unit = calls.first().first().mid(QStringLiteral("--unit=").size());
            EXPECT_TRUE(unit.startsWith(QStringLiteral("edr-agent-update-"))) << unit.toStdString();
            EXPECT_EQ(calls.first(), UpdaterLauncher::transientUnitArguments(unit, tools.path() + "/sh", script));
        } else {
            EXPECT_TRUE(calls.isEmpty());
        }
        if (c.expected == UpdaterLauncher::Outcome::Detached) {
            EXPECT_TRUE(edrtest::waitUntil([&] { return QFile::exists(marker); }, 10000));
            EXPECT_EQ(HostPaths::readFile(marker), script.toUtf8());
        } else {
            EXPECT_FALSE(QFile::exists(marker));
        }
    }
}
