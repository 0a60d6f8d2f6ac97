#include "inventory/InventoryFixtures.h"
#include "inventory/UsersAccountManager.h"

#include <QElapsedTimer>
#include <QJsonArray>

#include <gtest/gtest.h>

using edrtest::FakeToolDir;

namespace {

UsersAccountManager::AccountFiles filesOf(const QString& scenario)
{
    const HostPaths host = invtest::rootOf(scenario);
    UsersAccountManager::AccountFiles f;
    f.passwd = HostPaths::readFile(host.root(QStringLiteral("/etc/passwd")));
    f.shadow = HostPaths::readFile(host.root(QStringLiteral("/etc/shadow")));
    f.group = HostPaths::readFile(host.root(QStringLiteral("/etc/group")));
    f.loginDefs = HostPaths::readFile(host.root(QStringLiteral("/etc/login.defs")));
    f.last = edrtest::readFixture(QStringLiteral("commands/last/") + scenario + QStringLiteral(".stdout"));
    return f;
}

// Name, privileges, changed on, age, disabled, expires, required, changeable, expired, last logon.
QString row(const UserInfo& u)
{
    return QStringList{u.getName(),          u.getPrivileges(),       u.getPasswordChagedOn(),  u.getPasswordAge(),
                       u.getDisabled(),      u.getPasswordExpires(),  u.getPasswordRequired(), u.getPasswordChangeable(),
                       u.getPasswordExpired(), u.getLastLogon()}
        .join(QLatin1Char('|'));
}

TEST(UsersAccountManager, LaptopAccounts)
{
    const QList<UserInfo> users = UsersAccountManager::parseAccounts(filesOf(QStringLiteral("laptop")), invtest::fixtureToday());
    QStringList rows;
    for (const UserInfo& u : users)
        rows << row(u);
    // root locked; alice admin; bob locked with an expired account; carol's 90 days ran out;
    // dave has no password and must change it; system accounts and nobody are not listed.
    EXPECT_EQ(rows, (QStringList{
                        QStringLiteral("root|2|2023-05-23 00:00:00|363|true|false|true|true|false|"),
                        QStringLiteral("alice|2|2023-12-09 00:00:00|163|false|false|true|true|false|2024-05-20 08:01:33"),
                        QStringLiteral("bob|1|2023-05-23 00:00:00|363|true|false|true|true|false|2024-05-20 09:12:05"),
                        QStringLiteral("carol|1|2023-12-09 00:00:00|163|false|true|true|true|true|2024-05-02 14:40:00"),
                        QStringLiteral("dave|1|1970-01-01 00:00:00|19863|false|false|false|true|true|"),
                    }));
    const UserInfo& bob = users.at(2);
    EXPECT_EQ(bob.getUserID(), QStringLiteral("1001"));
    EXPECT_EQ(bob.getGroupID(), QStringLiteral("1001"));
    EXPECT_EQ(bob.getFullName(), QStringLiteral("Bob Example"));
    EXPECT_EQ(bob.getHomeDirPath(), QStringLiteral("/home/bob"));
    EXPECT_EQ(bob.toJson().size(), 14);
}

TEST(UsersAccountManager, RangeFromLoginDefsAndMissingShadow)
{
    QStringList server;
    for (const UserInfo& u : UsersAccountManager::parseAccounts(filesOf(QStringLiteral("server")), invtest::fixtureToday()))
        server << u.getName() + QLatin1Char(':') + u.getPrivileges() + QLatin1Char(':') + u.getLastLogon();
    // UID_MIN 500 there: an account created before the change at 998 counts as a login account too.
    EXPECT_EQ(server, (QStringList{QStringLiteral("root:2:"), QStringLiteral("systemd-network:1:"),
                                   QStringLiteral("legacy:1:2023-11-02 03:00:01"),
                                   QStringLiteral("ops:2:2024-05-20 07:30:12"), QStringLiteral("deploy:1:")}));

    // Without a readable shadow file the password facts are unknown, not guessed.
    const QList<UserInfo> host = UsersAccountManager::parseAccounts(filesOf(QStringLiteral("nodmi")), invtest::fixtureToday());
    ASSERT_FALSE(host.isEmpty());
    EXPECT_EQ(host.at(0).getName(), QStringLiteral("root"));
    for (const UserInfo& u : host) {
        EXPECT_TRUE(u.getPasswordChagedOn().isEmpty() && u.getDisabled().isEmpty() && u.getPasswordExpired().isEmpty());
        EXPECT_NE(u.getName(), QStringLiteral("nobody"));
    }
}

TEST(UsersAccountManager, MalformedLinesAreSkipped)
{
    UsersAccountManager::AccountFiles f;
    f.passwd = "short:x:1000\nbad:x:abc:1000::/home/bad:/bin/sh\n:x:1001:1001::/:/bin/sh\n"
               "ok:x:1002:4242::/home/ok:/bin/sh\nextra:x:1003:1003::/h:/bin/sh:more\n";
    f.shadow = "ok\nok:pw:notanumber:-3:99999999999999999999:7::x\n";
    f.group = "broken\nwheel:x:10\n";
    f.loginDefs = "UID_MIN\nUID_MAX many\n";
    f.last = "ok\nok pts/0 2024-13-45T99:99:99+00:00\n";
    const QList<UserInfo> users = UsersAccountManager::parseAccounts(f, invtest::fixtureToday());
    ASSERT_EQ(users.size(), 1);
    EXPECT_EQ(row(users.at(0)), QStringLiteral("ok|1|||false|false|true|true|false|"));
    EXPECT_EQ(users.at(0).getGroupID(), QStringLiteral("4242")); // groups prints the number for an unnamed group
}

TEST(UsersAccountManager, WhoOutput)
{
    EXPECT_EQ(UsersAccountManager::parseWhoOutput(edrtest::readFixture(QStringLiteral("commands/who/laptop.stdout"))),
              QStringLiteral("alice|alice|bob"));
    EXPECT_EQ(UsersAccountManager::parseWhoOutput("\n   \n  root\tpts/0  2024-05-20 10:00\n"), QStringLiteral("|root"));
    EXPECT_EQ(UsersAccountManager::parseWhoOutput(""), QString());
}

TEST(UsersAccountManager, ManagerReadsFilesAndRunsToolsOnce)
{
    FakeToolDir tools;
    tools.addToolFromFixture(QStringLiteral("who"), QStringLiteral("commands/who/laptop.stdout"));
    tools.addToolFromFixture(QStringLiteral("last"), QStringLiteral("commands/last/laptop.stdout"));
    UsersAccountManager users(invtest::rootOf(QStringLiteral("laptop")), tools.runner());
    users.setToday(invtest::fixtureToday());
    EXPECT_EQ(users.getCurrentLoginUsers(), QStringLiteral("alice|alice|bob"));
    EXPECT_EQ(tools.invocations(QStringLiteral("who")), QList<QStringList>{QStringList()});

    QJsonObject report;
    EXPECT_TRUE(users.getUsersAccountInfo(report));
    EXPECT_EQ(report.value(QStringLiteral("Users")).toArray().size(), 5);
    EXPECT_EQ(tools.invocations(QStringLiteral("last")),
              QList<QStringList>{(QStringList{QStringLiteral("-w"), QStringLiteral("--time-format"), QStringLiteral("iso")})});
}

TEST(UsersAccountManager, HangingOrMissingToolsAndNoPasswd)
{
    FakeToolDir tools;
    tools.addHangingTool(QStringLiteral("who"));
    tools.addHangingTool(QStringLiteral("last"));
    UsersAccountManager users(invtest::rootOf(QStringLiteral("laptop")), tools.runner());
    users.setTimeoutMs(300);
    QElapsedTimer t;
    t.start();
    EXPECT_EQ(users.getCurrentLoginUsers(), QString());
    QJsonObject report;
    EXPECT_TRUE(users.getUsersAccountInfo(report));
    EXPECT_LT(t.elapsed(), 10000);
    for (const QJsonValue& v : report.value(QStringLiteral("Users")).toArray())
        EXPECT_EQ(v.toObject().value(QStringLiteral("LastLogon")).toString(), QString());

    UsersAccountManager nowhere(HostPaths::fromFixtureRoot(QStringLiteral("/nonexistent-edr-root")), FakeToolDir().runner());
    QJsonObject empty;
    EXPECT_FALSE(nowhere.getUsersAccountInfo(empty));
    EXPECT_EQ(empty.value(QStringLiteral("Users")), QJsonValue(QJsonArray()));
}

} // namespace
