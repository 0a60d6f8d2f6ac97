#include "control/FirewallManager.h"
#include "control/OSQueryManager.h"
#include "control/ServiceManager.h"

#include "control/ControlTestHelpers.h"

#include <QDir>
#include <QFile>

// A refused order runs no tool, yet the server hears the same failure it would
// for an order that failed. (Kill and terminal orders: the push channel's policy test.)
TEST(DeniedOrders, RunNothingAndReportTheirUsualFailure)
{
    edrtest::ServerUnderTest peer;
    edrtest::FakeToolDir fakes;
    for (const char* tool : {"ufw", "systemctl"})
        fakes.addTool(QString::fromLatin1(tool), "");
    fakes.addScript(QStringLiteral("osquery"), "echo '[]'\n");
    ASSERT_TRUE(QDir().mkpath(Common::getRootPath() + QStringLiteral("/osquery")) &&
                QFile::link(fakes.path() + QStringLiteral("/osquery"), OSQueryManager::osqueryPath()));

    const QByteArray action = "settings/InvSettingsOutput";
    EXPECT_TRUE(
        ServiceManager(fakes.runner()).executeSendReportToServer(QStringLiteral("1|ssh.service|s1"), false));
    EXPECT_EQ(
        peer.posted(action),
        QJsonObject({{"_id", "s1"}, {"status", 1}, {"message", "Failed to Perform Service %s Action!"}}));
    EXPECT_TRUE(FirewallManager(fakes.runner()).executeSendReportToServer(QStringLiteral("1|1|1|f1"), false));
    EXPECT_EQ(
        peer.posted(action, 2),
        QJsonObject({{"_id", "f1"},
                     {"status", 1},
                     {"message", "Firewall settings change failed. Domain: Enabled | Private: Enabled | "
                                 "Public: Disabled"}}));
    // A failed query sends nothing, so neither does a refused one.
    EXPECT_FALSE(OSQueryManager(fakes.runner()).sendRptToServer(QStringLiteral("'q1|select 1'"), false));
    EXPECT_EQ(peer.server.requests().size(), 2);
    EXPECT_TRUE(peer.logHas("Failed to osquery output."));

    for (const char* tool : {"ufw", "systemctl", "osquery"})
        EXPECT_TRUE(fakes.invocations(QString::fromLatin1(tool)).isEmpty()) << tool;
}
