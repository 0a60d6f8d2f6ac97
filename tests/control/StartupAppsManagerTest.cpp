#include "control/StartupAppsManager.h"

#include "control/ControlTestHelpers.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using edrtest::ServerUnderTest;

namespace {

QJsonObject expectedReport(const QString& scenario)
{
    return QJsonDocument::fromJson(edrtest::readFixture(QStringLiteral("expected/startup/%1.json").arg(scenario)))
        .object();
}

StartupAppsManager managerOver(const QString& scenario)
{
    return StartupAppsManager(HostPaths::fromFixtureRoot(edrtest::fixturePath(QStringLiteral("roots/") + scenario)));
}

void writeFile(const QString& path, const QByteArray& content)
{
    QDir().mkpath(path.section(QLatin1Char('/'), 0, -2));
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(content);
}

} // namespace

TEST(StartupAppsManagerTest, ListsEveryLocationWithUserAndSkipsOtherFiles)
{
    StartupAppsManager manager = managerOver(QStringLiteral("startup-mixed"));
    QJsonObject body;
    ASSERT_TRUE(manager.collectReport(body));
    EXPECT_EQ(body, expectedReport(QStringLiteral("startup-mixed"))) << edrtest::compact(body).constData();
}

TEST(StartupAppsManagerTest, ReportIsPostedToStartupRoute)
{
    ServerUnderTest peer;
    StartupAppsManager manager = managerOver(QStringLiteral("startup-mixed"));
    EXPECT_TRUE(manager.sendRptToServer(QString()));
    EXPECT_EQ(peer.onlyPostedObject("machineInfo/addStartupApps"), expectedReport(QStringLiteral("startup-mixed")));
    EXPECT_TRUE(peer.logHas("Successfully send Startup Apps to server."));
}

TEST(StartupAppsManagerTest, NoEntryAnywhereSendsNothing)
{
    ServerUnderTest peer;
    QTemporaryDir root;
    writeFile(root.path() + QStringLiteral("/etc/xdg/autostart/README"), "no entries\n");
    writeFile(root.path() + QStringLiteral("/home/dave/.config/autostart/app.desktop.bak"), "[Desktop Entry]\n");
    QDir().mkpath(root.path() + QStringLiteral("/etc/xdg/autostart/dir.desktop"));
    StartupAppsManager manager(HostPaths::fromFixtureRoot(root.path()));

    QJsonObject body;
    EXPECT_FALSE(manager.collectReport(body));
    EXPECT_TRUE(body.isEmpty());
    EXPECT_FALSE(manager.sendRptToServer(QString()));
    EXPECT_TRUE(peer.server.requests().isEmpty());
    EXPECT_TRUE(peer.logHas("Startup Apps Not Found!"));
    EXPECT_TRUE(peer.logHas("Failed to Startup Apps Info."));
    // A second report is not refused: the busy flag was cleared.
    EXPECT_FALSE(manager.sendRptToServer(QString()));
    EXPECT_FALSE(peer.prefix.traceLog().contains("sever"));
}

TEST(StartupAppsManagerTest, UnitNameIsFileNameWithoutExtension)
{
    QTemporaryDir root;
    const QString dir = root.path() + QStringLiteral("/etc/systemd/user/");
    writeFile(dir + QStringLiteral("pipewire.pulse.service"),
              "[Service]\nExecStart=/usr/bin/pipewire-pulse\n[Unit]\nDescription=PipeWire PulseAudio\n");
    StartupAppsManager manager(HostPaths::fromFixtureRoot(root.path()));
    QString name, command, description;
    EXPECT_TRUE(manager.parseServiceFile(dir + QStringLiteral("pipewire.pulse.service"), name, command, description));
    EXPECT_EQ(name, QStringLiteral("pipewire.pulse"));
    EXPECT_EQ(command, QStringLiteral("/usr/bin/pipewire-pulse"));
    EXPECT_EQ(description, QStringLiteral("PipeWire PulseAudio"));

    // Unreadable: the name still comes from the path, nothing else is set.
    name.clear();
    command = QStringLiteral("kept");
    EXPECT_FALSE(manager.parseServiceFile(dir + QStringLiteral("gone.service"), name, command, description));
    EXPECT_EQ(name, QStringLiteral("gone"));
    EXPECT_EQ(command, QStringLiteral("kept"));
}

struct IniCase {
    const char* what;
    QByteArray text;
    const char* group;
    QMap<QString, QString> expected;
};

TEST(StartupAppsManagerTest, IniGroupReading)
{
    const QList<IniCase> cases = {
        {"plain group, other groups ignored",
         "[Desktop Entry]\nName=A\nExec=a --x\n[Desktop Action New]\nName=B\nExec=b\n", "Desktop Entry",
         {{"Name", "A"}, {"Exec", "a --x"}}},
        {"groups merge and the last value wins", "[S]\nK=1\n[T]\nK=2\n[S]\nK=3\n", "S", {{"K", "3"}}},
        {"CRLF, padding, comments, lines without =",
         "\xef\xbb\xbf# c\r\n  [S]  \r\n ; x=1\r\n# y=2\r\n  K  =  v w  \r\ngarbage\r\n=novalue\r\n", "S",
         {{"K", "v w"}}},
        {"value keeps '=', quotes, commas and escapes", "[S]\nExec=env A=1 sh -c \"x, y\" \\n %U\n", "S",
         {{"Exec", "env A=1 sh -c \"x, y\" \\n %U"}}},
        {"group names are case-sensitive", "[desktop entry]\nName=A\n", "Desktop Entry", {}},
        {"keys before any group belong to none", "Name=A\n[Other]\n", "Desktop Entry", {}},
        {"unterminated header still names the group", "[S\nK=v", "S", {{"K", "v"}}},
        {"text after the header's bracket is ignored", "[S] trailing\nK=v\n", "S", {{"K", "v"}}},
        {"UTF-8 values", "[S]\nName=Caf\xc3\xa9\n", "S", {{"Name", QStringLiteral("Caf\u00e9")}}},
        {"a zero byte does not end a name", QByteArray("[S\0x]\nK=v\n[S]\nA\0B=1\0 2\n", 23), "S",
         {{QString::fromUtf8("A\0B", 3), QString::fromUtf8("1\0 2", 4)}}},
        {"empty text", "", "S", {}},
    };
    for (const IniCase& c : cases)
        EXPECT_EQ(StartupAppsManager::iniGroup(c.text, QString::fromUtf8(c.group)), c.expected) << c.what;
}

struct OrderCase {
    const char* parameter;
    const char* id; // nullptr: no "_id"
    const char* message;
};

TEST(StartupAppsManagerTest, EveryOrderIsAnsweredAsFailed)
{
    const QList<OrderCase> cases = {
        {"1|redshift-gtk.desktop|req-1", "req-1", "Failed to Enable Startup App - redshift-gtk.desktop "},
        {"0|syncthing|bob|req-2", "req-2", "Failed to Disable Startup App - syncthing bob"},
        {"1|only-two", nullptr, "Failed to Enable Startup App - only-two "},
        {"1|a|b|c|d", nullptr, "Failed to Enable Startup App - a b"},
        {"", nullptr, "Failed to Disable Startup App -  "},
        {"01|x|r", "r", "Failed to Disable Startup App - x "},
        {"1|%2 %1||", "", "Failed to Enable Startup App - %2 %1 "},
    };
    for (const OrderCase& c : cases) {
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

TEST(StartupAppsManagerTest, UnsentOrderResultIsLoggedAndNotKept)
{
    edrtest::ScratchPrefix prefix;
    int port;
    {
        edrtest::FakeHttpServer gone;
        port = gone.port();
    }
    prefix.pointAtServer(port);
    StartupAppsManager manager{HostPaths()};
    EXPECT_FALSE(manager.executeSendReportToServer(QStringLiteral("0|app|x|7")));
    const QByteArray log = prefix.traceLog();
    EXPECT_TRUE(log.contains("Failed to Disable Startup App! - app x"));
    EXPECT_TRUE(log.contains("Failed to send Startup Apps Action to server."));
    // The action flag was released: the next order is carried out, not refused.
    EXPECT_FALSE(manager.executeSendReportToServer(QStringLiteral("0|app|x|8")));
    EXPECT_FALSE(prefix.traceLog().contains("sever"));
}
