#include "inventory/InventoryFixtures.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <ctime>

#include <gtest/gtest.h>

// The fixture machines' accounts are in their reports; these are the lines no real file holds.
TEST(UsersAccountManager, MalformedLinesAreSkippedAndAdministratorsNamedExactly)
{
    UsersAccountManager::AccountFiles f;
    f.passwd = "short:x:1000\nbad:x:abc:1000::/home/bad:/bin/sh\n:x:1001:1001::/:/bin/sh\n"
               "ok:x:1002:4242::/home/ok:/bin/sh\nextra:x:1003:1003::/h:/bin/sh:more\n";
    f.shadow = "ok\nok:pw:notanumber:-3:99999999999999999999:7::x\n";
    f.group = "broken\nwheel:x:10\n";
    f.loginDefs = "UID_MIN\nUID_MAX many\n";
    f.last = "ok\nok pts/0 2024-13-45T99:99:99+00:00\n";
    const QList<UserInfo> users = UsersAccountManager::parseAccounts(f, QDate(2024, 5, 20));
    ASSERT_EQ(users.size(), 1);
    // groups prints the number for an unnamed group, unset day counts leave their keys empty
    EXPECT_EQ(users[0].toJson(),
              invtest::jsonOf(R"({"UserID":"1002","GroupID":"4242","Name":"ok","FullName":"",
        "Privileges":"1","PasswordChagedOn":"","PasswordAge":"","HomeDirPath":"/home/ok","Disabled":"false",
        "PasswordExpires":"false","PasswordRequired":"true","PasswordChangeable":"true","PasswordExpired":"false",
        "LastLogon":""})"));

    // Administrators by exact group name only.
    f = UsersAccountManager::AccountFiles();
    f.passwd = "grootman:x:1000:1000::/h:/bin/sh\npseudo:x:1001:1001::/h:/bin/sh\nann:x:1002:27::/h:/bin/sh\n"
               "bob:x:1003:1003::/h:/bin/sh\n";
    f.group =
        "grootman:x:1000:\npseudo:x:1001:\nsudo:x:27:\nbob:x:1003:\nroot:x:0:bob\nsudoers:x:50:grootman\n";
    QStringList privileges;
    for (const UserInfo& u : UsersAccountManager::parseAccounts(f, QDate(2024, 5, 20)))
        privileges << u.getName() + '=' + u.toJson().value("Privileges").toString();
    EXPECT_EQ(privileges, QStringList({"grootman=1", "pseudo=1", "ann=2", "bob=2"}));

    EXPECT_EQ(UsersAccountManager::parseWhoOutput("\n   \n  root\tpts/0  2024-05-20 10:00\n"), "|root");
    EXPECT_EQ(UsersAccountManager::parseWhoOutput(""), "");
    QJsonObject none; // no account files at all
    EXPECT_FALSE(
        UsersAccountManager(HostPaths::fromFixtureRoot("/nonexistent-edr-root"), ToolRunner(QStringList()))
            .getUsersAccountInfo(none));
    EXPECT_EQ(none.value("Users"), QJsonValue(QJsonArray()));
}

// Shadow's day numbers are UTC days: a password changed on today's UTC day is
// 0 days old whatever the local zone, here one whose date is not UTC's.
TEST(UsersAccountManager, PasswordAgeCountsUtcDays)
{
    const qint64 now = std::time(nullptr);
    const QByteArray zone = qgetenv("TZ");
    qputenv("TZ", now % 86400 < 10 * 3600 ? "XYZ+12" : "XYZ-14"); // local date a day behind, or ahead
    ::tzset();
    QTemporaryDir root;
    ASSERT_TRUE(QDir().mkpath(root.path() + "/etc"));
    const std::pair<const char*, QByteArray> files[] = {
        {"/etc/passwd", "ann:x:1000:1000::/h:/bin/sh\n"},
        {"/etc/shadow", "ann:pw:" + QByteArray::number(now / 86400) + ":1:99999:7:::\n"}};
    for (const auto& [name, text] : files) {
        QFile out(root.path() + name);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly) && out.write(text) == text.size());
    }
    const QList<UserInfo> users =
        UsersAccountManager(HostPaths::fromFixtureRoot(root.path()), ToolRunner(QStringList()))
            .getUsersAccounts();
    zone.isNull() ? qunsetenv("TZ") : qputenv("TZ", zone);
    ::tzset();
    ASSERT_EQ(users.size(), 1);
    EXPECT_EQ(users[0].toJson().value("PasswordAge"), "0");
    EXPECT_EQ(users[0].toJson().value("PasswordChangeable"), "false"); // minimum age of one day not yet over
}
