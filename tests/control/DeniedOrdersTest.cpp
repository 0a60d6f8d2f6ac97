#include "control/FirewallManager.h"
#include "control/OSQueryManager.h"
#include "control/ServiceManager.h"
#include "core/AuditLog.h"

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

// What an order notes for its audit record: its own success, apart from
// whether the server took its result (a server error keeps it for later).
TEST(OrderReports, SuccessIsNotedApartFromDelivery)
{
    edrtest::ServerUnderTest peer;
    edrtest::TimeScale scale(0.01); // the pauses between post attempts
    const struct {
        int toolExit;
        int httpStatus;
        bool succeeded, delivered;
    } cases[] = {{0, 200, true, true}, {1, 200, false, true}, {0, 500, true, false}, {1, 503, false, false}};
    for (const auto& c : cases) {
        edrtest::FakeToolDir fakes;
        fakes.addTool(QStringLiteral("systemctl"), "", c.toolExit);
        fakes.addTool(QStringLiteral("ufw"), "", c.toolExit);
        peer.server.setReply(edrtest::CannedReply{c.httpStatus});
        const std::function<void()> orders[] = {
            [&] {
                ServiceManager(fakes.runner()).executeSendReportToServer(QStringLiteral("2|cron.service|s1"));
            },
            [&] { FirewallManager(fakes.runner()).executeSendReportToServer(QStringLiteral("1|1|1|f1")); },
        };
        for (const auto& order : orders) {
            OrderReport report;
            order();
            EXPECT_EQ(report.succeeded, c.succeeded) << c.toolExit << " " << c.httpStatus;
            EXPECT_EQ(report.delivered, c.delivered) << c.toolExit << " " << c.httpStatus;
        }
    }
    OrderReport::noteSucceeded(true); // outside any order: goes nowhere
}
