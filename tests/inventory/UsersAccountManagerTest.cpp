#include "inventory/InventoryFixtures.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

namespace {

// The fixture machines' accounts are in their reports; these are the lines
// no real account file holds.
TEST(UsersAccountManager, MalformedLinesAreSkipped)
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
    EXPECT_EQ(users[0].toJson(), invtest::jsonOf(R"({"UserID":"1002","GroupID":"4242","Name":"ok","FullName":"",
        "Privileges":"1","PasswordChagedOn":"","PasswordAge":"","HomeDirPath":"/home/ok","Disabled":"false",
        "PasswordExpires":"false","PasswordRequired":"true","PasswordChangeable":"true","PasswordExpired":"false",
        "LastLogon":""})"));
}

TEST(UsersAccountManager, WhoOutput)
{
    EXPECT_EQ(UsersAccountManager::parseWhoOutput("\n   \n  root\tpts/0  2024-05-20 10:00\n"), "|root");
    EXPECT_EQ(UsersAccountManager::parseWhoOutput(""), "");
}

TEST(UsersAccountManager, RunsWhoAndLastOnceWithinTheirLimit)
{
    edrtest::FakeToolDir tools;
    invtest::addScenarioTools(tools, "laptop");
    UsersAccountManager users(invtest::rootOf("laptop"), tools.runner());
    EXPECT_EQ(users.getCurrentLoginUsers(), "alice|alice|bob");
    QJsonObject report;
    EXPECT_TRUE(users.getUsersAccountInfo(report));
    EXPECT_EQ(tools.invocations("who"), QList<QStringList>{QStringList()});
    EXPECT_EQ(tools.invocations("last"), QList<QStringList>{(QStringList{"-w", "--time-format", "iso"})});

    edrtest::FakeToolDir hanging;
    hanging.addHangingTool("who");
    hanging.addHangingTool("last");
    UsersAccountManager stuck(invtest::rootOf("laptop"), hanging.runner());
    stuck.setTimeoutMs(300);
    QElapsedTimer t;
    t.start();
    EXPECT_EQ(stuck.getCurrentLoginUsers(), "");
    QJsonObject partial;
    EXPECT_TRUE(stuck.getUsersAccountInfo(partial));
    EXPECT_LT(t.elapsed(), 10000);
    EXPECT_EQ(partial.value("Users").toArray().size(), 5);
    for (const QJsonValue& u : partial.value("Users").toArray())
        EXPECT_EQ(u["LastLogon"], "");

    UsersAccountManager nowhere(HostPaths::fromFixtureRoot("/nonexistent-edr-root"), tools.runner());
    QJsonObject empty;
    EXPECT_FALSE(nowhere.getUsersAccountInfo(empty));
    EXPECT_EQ(empty.value("Users"), QJsonValue(QJsonArray()));
}

} // namespace
