#include "schedule/TasksManager.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

using namespace edrtest;

namespace
{

// "Class::method" of every manager entry point that logged its Debug IN in text.
QStringList entered(const QByteArray& text)
{
    QStringList calls;
    for (const QByteArray& line : text.split('\n')) {
        if (!line.endsWith("| IN"))
            continue;
        const QString origin = QString::fromUtf8(line).section(QLatin1String(" | "), 0, 0);
        const QString call = origin.section(QLatin1Char('('), 0, 0).section(QLatin1Char(' '), -1);
        if (call.endsWith(QLatin1String("::sendRptToServer")) ||
            call.endsWith(QLatin1String("::executeSendReportToServer")))
            calls << call;
    }
    return calls;
}

} // namespace

// Each task number reaches its own manager, and only the numbers with one reach any.
TEST(TasksManager, TaskNumbersReachTheirManagers)
{
    ScratchPrefix prefix; // no serverip.ini: every post fails at once
    TasksManager tasks;
    const struct {
        TasksManager::TASK_NAMES task;
        const char* report;
        const char* order;
    } table[] = {
        {TasksManager::AgentInfo, "AgentManager::sendRptToServer", nullptr},
        {TasksManager::StartUp, "StartupAppsManager::sendRptToServer",
         "StartupAppsManager::executeSendReportToServer"},
        {TasksManager::Services, "ServiceManager::sendRptToServer",
         "ServiceManager::executeSendReportToServer"},
        {TasksManager::Processes, "ProcessManager::sendRptToServer",
         "ProcessManager::executeSendReportToServer"},
        {TasksManager::InstalledSoft, "InstallSoftManager::sendRptToServer", nullptr},
        {TasksManager::HardwareInfo, "HardwareInfoManager::sendRptToServer", nullptr},
        {TasksManager::Network_Mon, "NetworkMonManager::sendRptToServer", nullptr},
        {TasksManager::MTasks, "TerminalManager::sendRptToServer", nullptr},
        {TasksManager::WindowsFirewallStatus, "FirewallManager::sendRptToServer",
         "FirewallManager::executeSendReportToServer"},
        {TasksManager::OS_Query, "OSQueryManager::sendRptToServer", nullptr},
    };
    for (int n = 0; n < TasksManager::kTaskCount; ++n) {
        const auto task = static_cast<TasksManager::TASK_NAMES>(n);
        const char* report = nullptr;
        const char* order = nullptr;
        for (const auto& row : table)
            if (row.task == task) {
                report = row.report;
                order = row.order;
            }
        // A short parameter: orders fail before they touch the machine.
        int seen = prefix.traceLog().size();
        EXPECT_FALSE(tasks.sendReportToServer(task, QStringLiteral("x")));
        EXPECT_EQ(entered(prefix.traceLog().mid(seen)), report ? QStringList{report} : QStringList()) << n;
        seen = prefix.traceLog().size();
        EXPECT_FALSE(tasks.executeSendReportToServer(task, QStringLiteral("x")));
        EXPECT_EQ(entered(prefix.traceLog().mid(seen)), order ? QStringList{order} : QStringList()) << n;
    }
}
