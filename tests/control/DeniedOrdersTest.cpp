#include "control/FirewallManager.h"
#include "control/OSQueryManager.h"
#include "control/ProcessManager.h"
#include "control/ServiceManager.h"
#include "control/StartupAppsManager.h"
#include "control/TerminalManager.h"

#include "control/ControlTestHelpers.h"

#include <QDir>
#include <QFile>

#include <functional>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

// A refused order runs no tool and touches no process, yet the server hears
// the same failure it would for an order that failed.
TEST(DeniedOrders, RunNothingAndReportTheirUsualFailure)
{
    edrtest::ServerUnderTest peer;
    edrtest::FakeToolDir fakes;
    for (const char* tool : {"ufw", "systemctl", "ls"})
        fakes.addTool(QString::fromLatin1(tool), "");
    const QString marker = peer.prefix.path() + QStringLiteral("/osquery-ran");
    const QString osquery = Common::getRootPath() + QStringLiteral("/osquery/osquery");
    ASSERT_TRUE(QDir().mkpath(Common::getRootPath() + QStringLiteral("/osquery")));
    QFile script(osquery);
    ASSERT_TRUE(script.open(QIODevice::WriteOnly));
    script.write("#!/bin/sh\ntouch '" + QFile::encodeName(marker) + "'\necho '[]'\n");
    script.close();
    script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::execlp("sleep", "sleep", "100", static_cast<char*>(nullptr));
        ::_exit(127);
    }

    ProcessManager processes(HostPaths(), fakes.runner());
    ServiceManager services(fakes.runner());
    StartupAppsManager startup;
    FirewallManager firewall(fakes.runner());
    TerminalManager terminal(fakes.runner());
    OSQueryManager queries(fakes.runner());
    const QByteArray action = "settings/InvSettingsOutput";
    const struct {
        std::function<bool()> order;
        QByteArray route;
        QJsonObject result;
    } cases[] = {
        {[&] { return processes.executeSendReportToServer(QStringLiteral("1|%1|k1").arg(child), false); }, action,
         {{"_id", "k1"}, {"status", 1}, {"message", "Failed to Kill %s!"}}},
        {[&] { return services.executeSendReportToServer(QStringLiteral("1|ssh.service|s1"), false); }, action,
         {{"_id", "s1"}, {"status", 1}, {"message", "Failed to Perform Service %s Action!"}}},
        {[&] { return startup.executeSendReportToServer(QStringLiteral("1|app|a1"), false); }, action,
         {{"_id", "a1"}, {"status", 1}, {"message", "Failed to Enable Startup App - app "}}},
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

    for (const char* tool : {"ufw", "systemctl", "ls"})
        EXPECT_TRUE(fakes.invocations(QString::fromLatin1(tool)).isEmpty()) << tool;
    EXPECT_FALSE(QFile::exists(marker));
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, WNOHANG), 0); // still alive
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
}
