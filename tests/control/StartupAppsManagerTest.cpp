#include "control/StartupAppsManager.h"

#include "control/ControlTestHelpers.h"

#include <QDir>
#include <QTemporaryDir>

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
