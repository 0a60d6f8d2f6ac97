#include "control/FirewallManager.h"

#include "control/ControlTestHelpers.h"

#include <gtest/gtest.h>

using edrtest::FakeToolDir;
using edrtest::ServerUnderTest;

namespace {

// A ufw that answers like the real one: "status" prints the scenario's
// status text, "enable"/"disable" print their confirmation and exit with
// changeExit.
void addUfw(FakeToolDir& tools, const QString& statusScenario, int changeExit = 0)
{
    const QByteArray status = edrtest::fixturePath(QStringLiteral("commands/ufw/%1.stdout").arg(statusScenario)).toUtf8();
    const QByteArray dir = edrtest::fixturePath(QStringLiteral("commands/ufw/")).toUtf8();
    tools.addScript(QStringLiteral("ufw"), "case \"$1\" in\n"
                                           "status) cat '" + status + "' ;;\n"
                                           "enable) cat '" + dir + "enable.stdout'; exit " +
                                               QByteArray::number(changeExit) + " ;;\n"
                                           "disable) cat '" + dir + "disable.stdout'; exit " +
                                               QByteArray::number(changeExit) + " ;;\n"
                                           "*) echo 'ERROR: Invalid syntax'; exit 1 ;;\n"
                                           "esac\n");
}

QJsonObject profiles(bool publicOn)
{
    return QJsonObject{{"domain", false}, {"private", false}, {"public", publicOn}};
}

} // namespace

TEST(FirewallManagerTest, StatusTextGivesOnlyThePublicProfile)
{
    const struct {
        const char* scenario;
        bool publicOn;
    } cases[] = {{"status-active", true}, {"status-inactive", false}, {"not-root", true}};
    for (const auto& c : cases)
        EXPECT_EQ(FirewallManager::parseFirewallStatus(
                      edrtest::readFixture(QStringLiteral("commands/ufw/%1.stdout").arg(QString::fromUtf8(c.scenario)))),
                  profiles(c.publicOn))
            << c.scenario;
    EXPECT_EQ(FirewallManager::parseFirewallStatus(QByteArray()), profiles(true));
    EXPECT_EQ(FirewallManager::parseFirewallStatus(QByteArray("Status: in\0active", 17)), profiles(true));
}

TEST(FirewallManagerTest, StatusReportCarriesSocIdOnlyWhenGiven)
{
    for (const bool active : {true, false}) {
        ServerUnderTest peer;
        FakeToolDir tools;
        addUfw(tools, active ? QStringLiteral("status-active") : QStringLiteral("status-inactive"));
        FirewallManager manager(tools.runner());
        const QString id = active ? QStringLiteral("sock-42") : QString();
        EXPECT_TRUE(manager.sendRptToServer(id));
        QJsonObject expected = profiles(active);
        if (active)
            expected.insert(QStringLiteral("socId"), id);
        EXPECT_EQ(peer.onlyPostedObject("firewall/firewallStatus"), expected);
        EXPECT_EQ(tools.invocations(QStringLiteral("ufw")), QList<QStringList>{{QStringLiteral("status")}});
        EXPECT_TRUE(peer.logHas("Successfully send Firewall Status to server."));
    }
}

TEST(FirewallManagerTest, HungOrMissingUfwStillReportsWithoutProfiles)
{
    edrtest::ScopedTimeScale fast(0.01); // 30 s limit becomes 300 ms
    {
        ServerUnderTest peer;
        FakeToolDir tools;
        tools.addHangingTool(QStringLiteral("ufw"));
        FirewallManager manager(tools.runner());
        QJsonObject body;
        EXPECT_FALSE(manager.collectReport(body));
        EXPECT_TRUE(body.isEmpty());
        EXPECT_TRUE(manager.sendRptToServer(QStringLiteral("s1")));
        EXPECT_EQ(peer.onlyPostedObject("firewall/firewallStatus"), QJsonObject({{"socId", "s1"}}));
    }
    {
        ServerUnderTest peer;
        FakeToolDir empty;
        FirewallManager manager(empty.runner());
        EXPECT_TRUE(manager.sendRptToServer(QString()));
        EXPECT_EQ(peer.onlyPostedObject("firewall/firewallStatus"), QJsonObject());
    }
}

struct ChangeCase {
    const char* parameter;
    int ufwExit;
    const char* ufwArgument;
    int status;
    const char* id;
    const char* message;
};

TEST(FirewallManagerTest, OrdersRunUfwAndAnswerWithShiftedLabels)
{
    const QList<ChangeCase> cases = {
        {"1|1|1|abc", 0, "enable", 0, "abc",
         "Firewall settings changed successfully. Domain: Enabled | Private: Enabled | Public: Disabled"},
        {"0|0|0|7", 0, "disable", 0, "7",
         "Firewall settings changed successfully. Domain: Disabled | Private: Disabled | Public: Disabled"},
        {"2|0|1|1", 0, "enable", 0, "1",
         "Firewall settings changed successfully. Domain: Disabled | Private: Enabled | Public: Enabled"},
        {"1|1|1|abc", 1, "enable", 1, "abc",
         "Firewall settings change failed. Domain: Enabled | Private: Enabled | Public: Disabled"},
        {"on|2|-1|", 0, "disable", 0, "",
         "Firewall settings changed successfully. Domain: Disabled | Private: Disabled | Public: Disabled"},
    };
    for (const ChangeCase& c : cases) {
        ServerUnderTest peer;
        FakeToolDir tools;
        addUfw(tools, QStringLiteral("status-active"), c.ufwExit);
        FirewallManager manager(tools.runner());
        EXPECT_TRUE(manager.executeSendReportToServer(QString::fromUtf8(c.parameter))) << c.parameter;
        EXPECT_EQ(tools.invocations(QStringLiteral("ufw")), QList<QStringList>{{QString::fromUtf8(c.ufwArgument)}})
            << c.parameter;
        const QJsonObject expected{{"_id", QString::fromUtf8(c.id)},
                                   {"status", c.status},
                                   {"message", QString::fromUtf8(c.message)}};
        EXPECT_EQ(peer.onlyPostedObject("settings/InvSettingsOutput"), expected) << c.parameter;
        EXPECT_TRUE(peer.logHas(c.message)) << c.parameter;
        EXPECT_TRUE(peer.logHas("Successfully send Firewall Action to server.")) << c.parameter;
    }
}

TEST(FirewallManagerTest, OrderWithoutUfwIsReportedAsFailed)
{
    edrtest::ScopedTimeScale fast(0.01);
    for (const bool hang : {false, true}) {
        ServerUnderTest peer;
        FakeToolDir tools;
        if (hang)
            tools.addHangingTool(QStringLiteral("ufw"));
        FirewallManager manager(tools.runner());
        EXPECT_TRUE(manager.executeSendReportToServer(QStringLiteral("1|0|0|id9")));
        EXPECT_EQ(peer.onlyPostedObject("settings/InvSettingsOutput"),
                  QJsonObject({{"_id", "id9"},
                               {"status", 1},
                               {"message", "Firewall settings change failed. Domain: Disabled | Private: Disabled | "
                                           "Public: Disabled"}}));
    }
}

TEST(FirewallManagerTest, OrderOfOtherThanFourFieldsRunsAndSendsNothing)
{
    for (const char* parameter : {"1|1|1", "1|1|1|a|b", "", "1", "|||||"}) {
        ServerUnderTest peer;
        FakeToolDir tools;
        addUfw(tools, QStringLiteral("status-active"));
        FirewallManager manager(tools.runner());
        EXPECT_FALSE(manager.executeSendReportToServer(QString::fromUtf8(parameter))) << parameter;
        EXPECT_TRUE(tools.invocations(QStringLiteral("ufw")).isEmpty()) << parameter;
        EXPECT_TRUE(peer.server.requests().isEmpty()) << parameter;
        EXPECT_TRUE(peer.logHas("Failed to send Firewall Action to server.")) << parameter;
        // The refusal released the action flag.
        EXPECT_TRUE(manager.executeSendReportToServer(QStringLiteral("0|0|0|x")));
    }
}
