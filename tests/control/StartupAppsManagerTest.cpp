#include "control/StartupAppsManager.h"

#include "control/ControlTestHelpers.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

using edrtest::ServerUnderTest;

TEST(StartupAppsManagerTest, ReportListsEveryLocationWithItsUser)
{
    ServerUnderTest peer;
    StartupAppsManager manager(HostPaths::fromFixtureRoot(edrtest::fixturePath(QStringLiteral("roots/startup-mixed"))));
    EXPECT_TRUE(manager.sendRptToServer(QString()));
    const QJsonObject expected =
        QJsonDocument::fromJson(edrtest::readFixture(QStringLiteral("expected/startup/startup-mixed.json"))).object();
    const QJsonObject posted = peer.onlyPostedObject("machineInfo/addStartupApps");
    EXPECT_EQ(posted, expected) << QJsonDocument(posted).toJson().constData();
}

TEST(StartupAppsManagerTest, NoEntryAnywhereSendsNothing)
{
    ServerUnderTest peer;
    QTemporaryDir root;
    QDir().mkpath(root.path() + QStringLiteral("/etc/xdg/autostart/dir.desktop"));
    QDir().mkpath(root.path() + QStringLiteral("/home/dave/.config/autostart"));
    QFile other(root.path() + QStringLiteral("/home/dave/.config/autostart/app.desktop.bak"));
    ASSERT_TRUE(other.open(QIODevice::WriteOnly));
    other.write("[Desktop Entry]\nName=A\n");
    other.close();

    StartupAppsManager manager(HostPaths::fromFixtureRoot(root.path()));
    for (int i = 0; i < 2; ++i) // the second run is not refused as busy
        EXPECT_FALSE(manager.sendRptToServer(QString()));
    EXPECT_TRUE(peer.server.requests().isEmpty());
    EXPECT_TRUE(peer.logHas("Startup Apps Not Found!"));
    EXPECT_TRUE(peer.logHas("Failed to Startup Apps Info."));
    EXPECT_FALSE(peer.logHas("sever"));
}

TEST(StartupAppsManagerTest, IniGroupReading)
{
    const struct {
        const char* what;
        QByteArray text;
        QMap<QString, QString> expected; // of group "S"
    } cases[] = {
        {"other groups ignored, groups merge, last value wins", "[S]\nK=1\nA=x\n[T]\nK=2\n[S]\nK=3\n",
         {{"K", "3"}, {"A", "x"}}},
        {"CRLF, padding, comments, lines without a key", "# c\r\n  [S]  \r\n ; x=1\r\n  K  =  v w  \r\ngarbage\r\n=v\r\n",
         {{"K", "v w"}}},
        {"values verbatim", "[S]\nExec=env A=1 sh -c \"x, y\" \\n %U\n", {{"Exec", "env A=1 sh -c \"x, y\" \\n %U"}}},
        {"case-sensitive group, keys before any group", "K=0\n[s]\nK=1\n", {}},
        {"unterminated header", "[S\nK=v", {{"K", "v"}}},
        {"zero bytes are data", QByteArray("[S\0x]\nK=v\n[S]\nA\0B=1\0 2\n", 23),
         {{QString::fromUtf8("A\0B", 3), QString::fromUtf8("1\0 2", 4)}}},
        {"UTF-8", "[S]\nName=Caf\xc3\xa9\n", {{"Name", QStringLiteral("Caf\u00e9")}}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(StartupAppsManager::iniGroup(c.text, QStringLiteral("S")), c.expected) << c.what;
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
        EXPECT_EQ(peer.onlyPostedObject("settings/InvSettingsOutput"), expected) << c.parameter;
        EXPECT_TRUE(peer.logHas("Successfully send Startup Apps Action to server.")) << c.parameter;
    }
}
