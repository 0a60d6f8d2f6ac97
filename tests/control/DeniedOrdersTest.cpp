#include "control/FirewallManager.h"
#include "control/OSQueryManager.h"
#include "control/ProcessManager.h"
#include "control/ServiceManager.h"
#include "control/TerminalManager.h"

#include "control/ControlTestHelpers.h"

#include <QDir>
#include <QFile>

#include <functional>

// A refused order runs no tool and touches no process, yet the server hears
// the same failure it would for an order that failed.
TEST(DeniedOrders, RunNothingAndReportTheirUsualFailure)
{
    edrtest::ServerUnderTest peer;
    edrtest::FakeToolDir fakes;
    for (const char* tool : {"ufw", "systemctl", "ls"})
        fakes.addTool(QString::fromLatin1(tool), "");
    fakes.addScript(QStringLiteral("osquery"), "echo '[]'\n");
    ASSERT_TRUE(QDir().mkpath(Common::getRootPath() + QStringLiteral("/osquery")) &&
                QFile::link(fakes.path() + QStringLiteral("/osquery"), OSQueryManager::osqueryPath()));
    edrtest::Sleeper child;

    ProcessManager processes(HostPaths(), fakes.runner());
    ServiceManager services(fakes.runner());
    FirewallManager firewall(fakes.runner());
    TerminalManager terminal(fakes.runner());
    OSQueryManager queries(fakes.runner());
    const QByteArray action = "settings/InvSettingsOutput";
    const struct {
        std::function<bool()> order;
        QByteArray route;
        QJsonObject result;
    } cases[] = {
        {[&] { return processes.executeSendReportToServer(QStringLiteral("1|%1|k1").arg(child.pid()), false); }, action,
         {{"_id", "k1"}, {"status", 1}, {"message", "Failed to Kill %s!"}}},
        {[&] { return services.executeSendReportToServer(QStringLiteral("1|ssh.service|s1"), false); }, action,
         {{"_id", "s1"}, {"status", 1}, {"message", "Failed to Perform Service %s Action!"}}},
        {[&] { return firewall.executeSendReportToServer(QStringLiteral("1|1|1|f1"), false); }, action,
         {{"_id", "f1"},
          {"status", 1},
          {"message", "Firewall settings change failed. Domain: Enabled | Private: Enabled | Public: Disabled"}}},
        {[&] { return terminal.sendRptToServer(QStringLiteral("t1|ls -l"), false); }, "cmdAndPS/cmdOutput",
         {{"_id", "t1"}, {"cmd", "ls -l"}, {"status", 1}, {"Error", 0}}},
    };
    int posted = 0;
    for (const auto& c : cases) {
        EXPECT_TRUE(c.order()) << c.route.constData();
        EXPECT_EQ(peer.posted(c.route, ++posted), c.result);
    }
    // A failed query sends nothing, so neither does a refused one.
    EXPECT_FALSE(queries.sendRptToServer(QStringLiteral("'q1|select 1'"), false));
    EXPECT_EQ(peer.server.requests().size(), posted);
    EXPECT_TRUE(peer.logHas("Failed to osquery output."));

    for (const char* tool : {"ufw", "systemctl", "ls", "osquery"})
        EXPECT_TRUE(fakes.invocations(QString::fromLatin1(tool)).isEmpty()) << tool;
    EXPECT_TRUE(child.running());
}
