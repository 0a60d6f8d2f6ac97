#include "control/FirewallManager.h"

#include "control/ControlTestHelpers.h"

using edrtest::FakeToolDir;
using edrtest::ServerUnderTest;

namespace {

// Answers like ufw: "status" prints the scenario's text, "enable"/"disable"
// print their confirmation and exit with changeExit.
void addUfw(FakeToolDir& tools, const char* statusScenario, int changeExit = 0)
{
    const QByteArray dir = edrtest::fixturePath(QStringLiteral("commands/ufw/")).toUtf8();
    const QByteArray exit = QByteArray::number(changeExit);
    tools.addScript(QStringLiteral("ufw"), "case \"$1\" in\n"
                                           "status) cat '" + dir + statusScenario + ".stdout' ;;\n"
                                           "enable|disable) cat '" + dir + "'\"$1\".stdout; exit " + exit + " ;;\n"
                                           "*) echo 'ERROR: Invalid syntax'; exit 1 ;;\n"
                                           "esac\n");
}

} // namespace

TEST(FirewallManagerTest, StatusReportGivesPublicProfileAndSocIdWhenGiven)
{
    const struct {
        const char* scenario;
        const char* socId;
        QJsonObject expected;
    } cases[] = {
        {"status-active", "sock-42", {{"domain", false}, {"private", false}, {"public", true}, {"socId", "sock-42"}}},
        {"status-inactive", "", {{"domain", false}, {"private", false}, {"public", false}}},
        {"not-root", "", {{"domain", false}, {"private", false}, {"public", true}}},
    };
    for (const auto& c : cases) {
        ServerUnderTest peer;
        FakeToolDir tools;
        addUfw(tools, c.scenario);
        FirewallManager manager(tools.runner());
        EXPECT_TRUE(manager.sendRptToServer(QString::fromUtf8(c.socId)));
        EXPECT_EQ(peer.onlyPostedObject("firewall/firewallStatus"), c.expected) << c.scenario;
        EXPECT_EQ(tools.invocations(QStringLiteral("ufw")), QList<QStringList>{{QStringLiteral("status")}});
        EXPECT_TRUE(peer.logHas("Successfully send Firewall Status to server."));
    }
}

TEST(FirewallManagerTest, HungUfwIsKilledAndReportGoesOutWithoutProfiles)
{
    edrtest::ScopedTimeScale fast(0.01); // 30 s -> 300 ms
    ServerUnderTest peer;
    FakeToolDir tools;
    tools.addHangingTool(QStringLiteral("ufw"));
    FirewallManager manager(tools.runner());
    QJsonObject body;
    EXPECT_FALSE(manager.collectReport(body));
    EXPECT_TRUE(manager.sendRptToServer(QStringLiteral("s1")));
    EXPECT_EQ(peer.onlyPostedObject("firewall/firewallStatus"), QJsonObject({{"socId", "s1"}}));
}

TEST(FirewallManagerTest, OrdersRunUfwAndAnswerWithShiftedLabels)
{
    const struct {
        const char* parameter;
        int ufwExit;
        const char* ufwArgument;
        int status;
        const char* id;
        const char* message;
    } cases[] = {
        {"1|1|1|abc", 0, "enable", 0, "abc",
         "Firewall settings changed successfully. Domain: Enabled | Private: Enabled | Public: Disabled"},
        {"0|0|0|7", 0, "disable", 0, "7",
         "Firewall settings changed successfully. Domain: Disabled | Private: Disabled | Public: Disabled"},
        {"2|0|1|1", 0, "enable", 0, "1",
         "Firewall settings changed successfully. Domain: Disabled | Private: Enabled | Public: Enabled"},
        {"on|1|1|x", 1, "disable", 1, "x",
         "Firewall settings change failed. Domain: Enabled | Private: Enabled | Public: Disabled"},
    };
    for (const auto& c : cases) {
        ServerUnderTest peer;
        FakeToolDir tools;
        addUfw(tools, "status-active", c.ufwExit);
        FirewallManager manager(tools.runner());
        EXPECT_TRUE(manager.executeSendReportToServer(QString::fromUtf8(c.parameter))) << c.parameter;
        EXPECT_EQ(tools.invocations(QStringLiteral("ufw")), QList<QStringList>{{QString::fromUtf8(c.ufwArgument)}});
        EXPECT_EQ(peer.onlyPostedObject("settings/InvSettingsOutput"),
                  QJsonObject({{"_id", c.id}, {"status", c.status}, {"message", c.message}}))
            << c.parameter;
        EXPECT_TRUE(peer.logHas(c.message));
        EXPECT_TRUE(peer.logHas("Successfully send Firewall Action to server."));
    }
}

TEST(FirewallManagerTest, OrderOfOtherThanFourFieldsRunsAndSendsNothing)
{
    for (const char* parameter : {"1|1|1", "1|1|1|a|b", ""}) {
        ServerUnderTest peer;
        FakeToolDir tools;
        addUfw(tools, "status-active");
        FirewallManager manager(tools.runner());
        EXPECT_FALSE(manager.executeSendReportToServer(QString::fromUtf8(parameter)));
        EXPECT_TRUE(tools.invocations(QStringLiteral("ufw")).isEmpty()) << parameter;
        EXPECT_TRUE(peer.server.requests().isEmpty()) << parameter;
        EXPECT_TRUE(peer.logHas("Failed to send Firewall Action to server.")) << parameter;
        EXPECT_TRUE(manager.executeSendReportToServer(QStringLiteral("0|0|0|x"))); // flag released
    }
}
