#include "schedule/TasksManager.h"
#include "support/TestSupport.h"

#include <QRegularExpression>

#include <gtest/gtest.h>

using namespace edrtest;

namespace
{

// "Class::method" of every manager entry point that logged its Debug IN in text.
QStringList entered(const QByteArray& text)
{
    static const QRegularExpression in(
        R"( (\w+::(?:sendRptToServer|executeSendReportToServer))\([^|]*\) \| IN$)",
        QRegularExpression::MultilineOption);
    QStringList calls;
    for (auto it = in.globalMatch(QString::fromUtf8(text)); it.hasNext();)
        calls << it.next().captured(1);
    return calls;
}

} // namespace

// Each task number reaches its own manager, and only the numbers with one reach any.
TEST(TasksManager, TaskNumbersReachTheirManagers)
{
    ScratchPrefix prefix; // no serverip.ini: every post fails at once
    TasksManager tasks;
    // The manager each number reports through, and whether it also takes orders.
    const QMap<int, QPair<QString, bool>> table = {
        {TasksManager::AgentInfo, {"AgentManager", false}},
        {TasksManager::StartUp, {"StartupAppsManager", true}},
        {TasksManager::Services, {"ServiceManager", true}},
        {TasksManager::Processes, {"ProcessManager", true}},
        {TasksManager::InstalledSoft, {"InstallSoftManager", false}},
        {TasksManager::HardwareInfo, {"HardwareInfoManager", false}},
        {TasksManager::Network_Mon, {"NetworkMonManager", false}},
        {TasksManager::MTasks, {"TerminalManager", false}},
        {TasksManager::WindowsFirewallStatus, {"FirewallManager", true}},
        {TasksManager::OS_Query, {"OSQueryManager", false}},
    };
    for (int n = 0; n < TasksManager::kTaskCount; ++n) {
        const auto task = static_cast<TasksManager::TASK_NAMES>(n);
        const auto [manager, orders] = table.value(n);
        // A short parameter: orders fail before they touch the machine.
        int seen = prefix.traceLog().size();
        EXPECT_FALSE(tasks.sendReportToServer(task, QStringLiteral("x")));
        EXPECT_EQ(entered(prefix.traceLog().mid(seen)),
                  manager.isEmpty() ? QStringList() : QStringList{manager + "::sendRptToServer"})
            << n;
        seen = prefix.traceLog().size();
        EXPECT_FALSE(tasks.executeSendReportToServer(task, QStringLiteral("x")));
        EXPECT_EQ(entered(prefix.traceLog().mid(seen)),
                  orders ? QStringList{manager + "::executeSendReportToServer"} : QStringList())
            << n;
    }
}
