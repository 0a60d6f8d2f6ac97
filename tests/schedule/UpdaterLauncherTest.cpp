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
    using Outcome = UpdaterLauncher::Outcome;
    const struct {
        const char* name;
        bool systemd, hasSystemdRun;
        int runExit;
        Outcome expected;
    } cases[] = {
        {"systemd", true, true, 0, Outcome::TransientUnit},
        {"no systemd", false, true, 0, Outcome::Detached},
        {"no systemd-run", true, false, 0, Outcome::Detached},
        {"systemd-run fails", true, true, 1, Outcome::Detached},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        QTemporaryDir root;
        if (c.systemd) {
            ASSERT_TRUE(QDir().mkpath(root.path() + "/run/systemd/system"));
        }
        FakeToolDir tools;
        if (c.hasSystemdRun)
            tools.addTool("systemd-run", QByteArray(), c.runExit);
        tools.addTool("sh", QByteArray());
        // A detached run is the system's sh with the script's path as $0.
        const QString marker = root.path() + "/ran", script = root.path() + "/edragentupd.sh";
        QFile f(script);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly) &&
                    f.write("printf '%s' \"$0\" > \"$0.tmp\" && mv \"$0.tmp\" '" + marker.toUtf8() + "'\n") >
                        0);
        f.close();
        const UpdaterLauncher launcher(HostPaths::fromFixtureRoot(root.path()), tools.runner());
        EXPECT_EQ(launcher.start(script), c.expected);

        const QList<QStringList> calls = tools.invocations("systemd-run");
        if (c.systemd && c.hasSystemdRun) {
            ASSERT_EQ(calls.size(), 1);
            EXPECT_TRUE(calls[0][0].startsWith("--unit=edr-agent-update-")) << qPrintable(calls[0][0]);
            EXPECT_EQ(calls[0].mid(1), (QStringList{"--collect", "--quiet", "--description=edr-agent updater",
                                                    "--", tools.path() + "/sh", script}));
        } else {
            EXPECT_TRUE(calls.isEmpty());
        }
        if (c.expected == Outcome::Detached) {
            EXPECT_TRUE(edrtest::waitUntil([&] { return QFile::exists(marker); }, 10000));
            EXPECT_EQ(HostPaths::readFile(marker), script.toUtf8());
        } else {
            EXPECT_FALSE(QFile::exists(marker));
        }
    }
}
