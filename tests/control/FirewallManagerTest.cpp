#include "control/FirewallManager.h"

#include "control/ControlTestHelpers.h"

using edrtest::FakeToolDir;
using edrtest::ServerUnderTest;

namespace
{

// Like ufw: "status" prints the scenario's text (or hangs); "enable"/"disable" exit with changeExit.
void addUfw(FakeToolDir& tools, const QByteArray& statusScenario, int changeExit = 0)
{
    const QByteArray dir = edrtest::fixturePath(QStringLiteral("commands/ufw/")).toUtf8();
    tools.addScript(QStringLiteral("ufw"), "case \"$1\" in\nstatus) [ " + statusScenario +
                                               " = hang ] && exec sleep 600\n"
                                               "  cat '" +
                                               dir + statusScenario +
                                               ".stdout' ;;\n"
                                               "enable|disable) cat '" +
                                               dir + "'\"$1\".stdout; exit " +
                                               QByteArray::number(changeExit) + " ;;\n*) exit 1 ;;\nesac\n");
}

} // namespace

TEST(FirewallManagerTest, StatusReportGivesPublicProfileAndSocIdWhenGiven)
{
    const edrtest::TimeScale fast(0.01); // 30 s -> 300 ms
    const struct {
        const char* scenario;
        const char* socId;
        QJsonObject expected;
    } cases[] = {
        {"status-active",
         "sock-42",
         {{"domain", false}, {"private", false}, {"public", true}, {"socId", "sock-42"}}},
        {"status-inactive", "", {{"domain", false}, {"private", false}, {"public", false}}},
        {"not-root", "", {{"domain", false}, {"private", false}, {"public", true}}},
        {"hang", "s1", {{"socId", "s1"}}}, // killed; the report goes out without the profiles
    };
    for (const auto& c : cases) {
        ServerUnderTest peer;
        FakeToolDir tools;
        addUfw(tools, c.scenario);
        EXPECT_TRUE(FirewallManager(tools.runner()).sendRptToServer(QString::fromUtf8(c.socId)));
        EXPECT_EQ(peer.posted("firewall/firewallStatus"), c.expected) << c.scenario;
        EXPECT_EQ(tools.invocations(QStringLiteral("ufw")), QList<QStringList>{{QStringLiteral("status")}});
    }
}

TEST(FirewallManagerTest, OrdersRunUfwAndAnswerWithShiftedLabels)
{
    const struct {
        const char* parameter;
        int ufwExit;
        const char* ufwArgument; // empty: refused, nothing run or sent
        const char* message;
    } cases[] = {
        {"1|1|1|abc", 0, "enable",
         "Firewall settings changed successfully. Domain: Enabled | Private: Enabled | Public: Disabled"},
        {"0|0|0|7", 0, "disable",
         "Firewall settings changed successfully. Domain: Disabled | Private: Disabled | Public: Disabled"},
        {"2|0|1|1", 0, "enable",
         "Firewall settings changed successfully. Domain: Disabled | Private: Enabled | Public: Enabled"},
        {"on|1|1|x", 1, "disable",
         "Firewall settings change failed. Domain: Enabled | Private: Enabled | Public: Disabled"},
        {"1|1|1", 0, "", "Failed to send Firewall Action to server."},
        {"1|1|1|a|b", 0, "", "Failed to send Firewall Action to server."},
    };
    for (const auto& c : cases) {
        ServerUnderTest peer;
        FakeToolDir tools;
        addUfw(tools, "status-active", c.ufwExit);
        FirewallManager manager(tools.runner());
        const QString parameter = QString::fromUtf8(c.parameter);
        const bool refused = !*c.ufwArgument;
        EXPECT_EQ(manager.executeSendReportToServer(parameter), !refused) << c.parameter;
        EXPECT_EQ(tools.invocations(QStringLiteral("ufw")).value(0).join(' '),
                  QString::fromUtf8(c.ufwArgument));
        if (refused)
            EXPECT_TRUE(peer.server.requests().isEmpty() && peer.logHas(c.message)) << c.parameter;
        else
            EXPECT_EQ(
                peer.posted("settings/InvSettingsOutput"),
                QJsonObject(
                    {{"_id", parameter.section('|', 3)}, {"status", c.ufwExit}, {"message", c.message}}));
        EXPECT_TRUE(manager.executeSendReportToServer(QStringLiteral("0|0|0|x"))); // flag released
    }
}
