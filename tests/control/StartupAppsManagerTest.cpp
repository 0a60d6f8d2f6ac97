#include "control/StartupAppsManager.h"

#include "control/ControlTestHelpers.h"

#include "core/UniqueFd.h"

#include <QDir>
#include <QTemporaryDir>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <thread>
#include <unistd.h>

using edrtest::ServerUnderTest;

TEST(StartupAppsManagerTest, ReportListsEveryLocationWithItsUserAndNothingWhenEmpty)
{
    ServerUnderTest peer;
    StartupAppsManager manager(
        HostPaths::fromFixtureRoot(edrtest::fixturePath(QStringLiteral("roots/startup-mixed"))));
    EXPECT_TRUE(manager.sendRptToServer(QString()));
    EXPECT_EQ(peer.posted("machineInfo/addStartupApps"),
              edrtest::jsonFixture(QStringLiteral("expected/startup/startup-mixed.json")));

    QTemporaryDir root; // only a directory named like an entry, and an empty user folder
    ASSERT_TRUE(QDir().mkpath(root.path() + "/etc/xdg/autostart/dir.desktop") &&
                QDir().mkpath(root.path() + "/home/dave/.config/autostart"));
    StartupAppsManager empty(HostPaths::fromFixtureRoot(root.path()));
    for (int i = 0; i < 2; ++i) // the second run is not refused as busy
        EXPECT_FALSE(empty.sendRptToServer(QString()));
    EXPECT_EQ(peer.server.requests().size(), 1);
    EXPECT_TRUE(peer.logHas("Startup Apps Not Found!") && peer.logHas("Failed to Startup Apps Info."));
}

TEST(StartupAppsManagerTest, OnlyRegularFilesAreOpenedFromAUsersFolder)
{
    QTemporaryDir root;
    const QByteArray top = QFile::encodeName(root.path());
    const QByteArray autostart = top + "/home/eve/.config/autostart";
    ASSERT_TRUE(QDir().mkpath(QFile::decodeName(autostart)) &&
                QDir().mkpath(root.path() + "/usr/share/applications"));
    edrtest::writeTestFile(QFile::decodeName(autostart + "/plain.desktop"),
                           "[Desktop Entry]\nName=Plain\nExec=plain\n");
    edrtest::writeTestFile(root.path() + "/usr/share/applications/shared.desktop",
                           "[Desktop Entry]\nName=Shared\nExec=shared --x\n");
    // What eve may link to: a FIFO (an open would wait for a writer for ever),
    // a device node (opening one may act on the device) and a kernel file.
    const QByteArray pipe = top + "/pipe", node = top + "/null";
    ASSERT_EQ(::mkfifo(pipe.constData(), 0600), 0);
    ASSERT_EQ(::mknod(node.constData(), S_IFCHR | 0600, ::makedev(1, 3)), 0);
    for (const auto& link : {std::make_pair(QByteArray("../../../../usr/share/applications/shared.desktop"),
                                            autostart + "/linked.desktop"),
                             std::make_pair(pipe, autostart + "/pipe.desktop"),
                             std::make_pair(node, autostart + "/null.service"),
                             std::make_pair(QByteArray("/proc/self/status"), autostart + "/kernel.desktop")})
        ASSERT_EQ(::symlink(link.first.constData(), link.second.constData()), 0) << link.second.constData();

    const UniqueFd opens(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_GE(::inotify_add_watch(opens.get(), node.constData(), IN_OPEN), 0);
    // Should the FIFO be opened anyway, this writer lets the open through and
    // its entry shows in the report instead of the test hanging.
    std::thread writer([&pipe] {
        const UniqueFd w(::open(pipe.constData(), O_WRONLY | O_CLOEXEC));
        const char entry[] = "[Desktop Entry]\nName=FromPipe\n";
        EXPECT_EQ(::write(w.get(), entry, sizeof entry - 1), ssize_t(sizeof entry - 1));
    });

    QJsonObject body;
    const bool collected = StartupAppsManager(HostPaths::fromFixtureRoot(root.path())).collectReport(body);
    const UniqueFd reader(::open(pipe.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)); // frees the writer
    writer.join();

    EXPECT_TRUE(collected);
    const auto record = [](const char* name, const char* command) {
        return QJsonObject{{"Name", name},
                           {"Command", command},
                           {"Description", ""},
                           {"User", "eve"},
                           {"Location", "/home/eve/.config/autostart"}};
    };
    EXPECT_EQ(QJsonDocument(body.value("Startup_Apps").toArray()).toJson(QJsonDocument::Compact),
              QJsonDocument(QJsonArray({record("Shared", "shared --x"), record("Plain", "plain")}))
                  .toJson(QJsonDocument::Compact));
    char event[sizeof(inotify_event) + 256];
    EXPECT_LT(::read(opens.get(), event, sizeof event), 0) << "the device node was opened";
}

TEST(StartupAppsManagerTest, AFolderFullOfEntriesIsReadInPart)
{
    edrtest::ServerUnderTest peer; // for the log
    QTemporaryDir root;
    const QString autostart = root.path() + "/home/eve/.config/autostart";
    ASSERT_TRUE(QDir().mkpath(autostart) && QDir().mkpath(root.path() + "/etc/xdg/autostart"));
    edrtest::writeTestFile(root.path() + "/etc/xdg/autostart/system.desktop",
                           "[Desktop Entry]\nName=System\n");
    const int limit = StartupAppsManager::kMaxEntriesPerFolder;
    for (int i = 0; i <= limit; ++i)
        edrtest::writeTestFile(autostart + QString("/e%1.desktop").arg(i), "[Desktop Entry]\nName=E\n");
    for (int i = 0; i < 3; ++i) // other files do not count
        edrtest::writeTestFile(autostart + QString("/notes%1.txt").arg(i), "");

    QJsonObject body;
    ASSERT_TRUE(StartupAppsManager(HostPaths::fromFixtureRoot(root.path())).collectReport(body));
    const QJsonArray apps = body.value("Startup_Apps").toArray();
    ASSERT_EQ(apps.size(), limit + 1);
    EXPECT_EQ(apps.first()["Name"], "System");
    EXPECT_EQ(apps.last()["User"], "eve");
    EXPECT_TRUE(peer.logHas("start-up entries; the rest is not read"));
}

TEST(StartupAppsManagerTest, IniGroupReading)
{
    // What the fixture tree does not already show: comments, padding, groups that merge, case-sensitive
    // names.
    const QPair<QByteArray, QMap<QString, QString>> cases[] = {
        {"[S]\nK=1\nA=x\n[T]\nK=2\n[S]\nK=3\n", {{"K", "3"}, {"A", "x"}}},
        {"# c\n  [S]  \n ; x=1\n  K  =  v w  \ngarbage\n=v\n", {{"K", "v w"}}},
        {"K=0\n[s]\nK=1\n[S\nL=v", {{"L", "v"}}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(StartupAppsManager::iniGroup(c.first, QStringLiteral("S")), c.second)
            << c.first.constData();
}

TEST(StartupAppsManagerTest, EveryOrderIsAnsweredAsFailed)
{
    const struct {
        const char* parameter;
        const char* id; // nullptr: no "_id"
        const char* message;
    } cases[] = {
        {"1|redshift-gtk.desktop|req-1", "req-1", "Failed to Enable Startup App - redshift-gtk.desktop "},
        {"0|syncthing|bob|req-2", "req-2", "Failed to Disable Startup App - syncthing bob"},
        {"1|only-two", nullptr, "Failed to Enable Startup App - only-two "},
        {"1|a|b|c|d", nullptr, "Failed to Enable Startup App - a b"},
        {"", nullptr, "Failed to Disable Startup App -  "},
        {"01|%2 %1||", "", "Failed to Disable Startup App - %2 %1 "},
    };
    for (const auto& c : cases) {
        ServerUnderTest peer;
        StartupAppsManager manager{HostPaths()};
        EXPECT_TRUE(manager.executeSendReportToServer(QString::fromUtf8(c.parameter))) << c.parameter;
        QJsonObject expected{{"status", 1}, {"message", QString::fromUtf8(c.message)}};
        if (c.id)
            expected.insert(QStringLiteral("_id"), QString::fromUtf8(c.id));
        EXPECT_EQ(peer.posted("settings/InvSettingsOutput"), expected) << c.parameter;
    }
}
