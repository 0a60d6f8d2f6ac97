#include "schedule/TasksManager.h"

#include "comm/AgentManager.h"
#include "control/FirewallManager.h"
#include "control/NetworkMonManager.h"
#include "control/OSQueryManager.h"
#include "control/ProcessManager.h"
#include "control/ServiceManager.h"
#include "control/StartupAppsManager.h"
#include "control/TerminalManager.h"
#include "inventory/HardwareInfoManager.h"
#include "inventory/InstallSoftManager.h"
#include "inventory/UsersAccountManager.h"

#include <QFile>
#include <QFileInfo>

#include <cstdlib>

TasksManager* TasksManager::s_instance = nullptr;

TasksManager* TasksManager::getInstance()
{
    if (!s_instance)
        s_instance = new TasksManager();
    return s_instance;
}

void TasksManager::releaseInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

// Constructing the dispatcher creates every manager singleton.
TasksManager::TasksManager()
    : m_agentManager(AgentManager::getInstance()), m_hardwareInfoManager(HardwareInfoManager::getInstance()),
      m_processManager(ProcessManager::getInstance()), m_serviceManager(ServiceManager::getInstance()),
      m_startupAppsManager(StartupAppsManager::getInstance()),
      m_installSoftManager(InstallSoftManager::getInstance()),
      m_usersAccountManager(UsersAccountManager::getInstance()),
      m_networkMonManager(NetworkMonManager::getInstance()),
      m_firewallManager(FirewallManager::getInstance()), m_terminalManager(TerminalManager::getInstance()),
      m_osQueryManager(OSQueryManager::getInstance())
{
}

QStringList TasksManager::taskNames()
{
    return {QStringLiteral("AgentInfo"),
            QStringLiteral("StartUp"),
            QStringLiteral("Services"),
            QStringLiteral("Processes"),
            QStringLiteral("InstalledSoft"),
            QStringLiteral("TaskSchedule"),
            QStringLiteral("Network"),
            QStringLiteral("HardwareInfo"),
            QStringLiteral("WindowsUpdates"),
            QStringLiteral("Registry"),
            QStringLiteral("Explorer"),
            QStringLiteral("Network_Mon"),
            QStringLiteral("AppCon_Logs"),
            QStringLiteral("Quorvex_Logs"),
            QStringLiteral("WebProt_Logs"),
            QStringLiteral("Network_Logs"),
            QStringLiteral("Event_Logs"),
            QStringLiteral("CReports_Logs"),
            QStringLiteral("MTasks"),
            QStringLiteral("Termina"),
            QStringLiteral("Powershel"),
            QStringLiteral("ActionResponse"),
            QStringLiteral("WindowsFirewallStatus"),
            QStringLiteral("ASR_Rules"),
            QStringLiteral("OS_Query")};
}

bool TasksManager::sendReportToServer(TASK_NAMES task, const QString& parameter)
{
    carryOutReport(task, parameter);
    return false;
}

bool TasksManager::executeSendReportToServer(TASK_NAMES task, const QString& parameter)
{
    carryOutAction(task, parameter);
    return false;
}

std::optional<bool> TasksManager::carryOutReport(TASK_NAMES task, const QString& parameter, bool permitted)
{
    switch (task) {
    case MTasks:
        return m_terminalManager->sendRptToServer(parameter, permitted);
    case OS_Query:
        return m_osQueryManager->sendRptToServer(parameter, permitted);
    default:
        break;
    }
    if (!permitted)
        return false;
    switch (task) {
    case AgentInfo:
        return m_agentManager->sendRptToServer(parameter);
    case StartUp:
        return m_startupAppsManager->sendRptToServer(parameter);
    case Services:
        return m_serviceManager->sendRptToServer(parameter);
    case Processes:
        return m_processManager->sendRptToServer(parameter);
    case InstalledSoft:
        return m_installSoftManager->sendRptToServer(parameter);
    case HardwareInfo:
        return m_hardwareInfoManager->sendRptToServer(parameter);
    case Network_Mon:
        return m_networkMonManager->sendRptToServer(parameter);
    case WindowsFirewallStatus:
        return m_firewallManager->sendRptToServer(parameter);
    default:
        return std::nullopt;
    }
}

std::optional<bool> TasksManager::carryOutAction(TASK_NAMES task, const QString& parameter, bool permitted)
{
    switch (task) {
    case StartUp:
        return m_startupAppsManager->executeSendReportToServer(parameter, permitted);
    case Services:
        return m_serviceManager->executeSendReportToServer(parameter, permitted);
    case Processes:
        return m_processManager->executeSendReportToServer(parameter, permitted);
    case WindowsFirewallStatus:
        return m_firewallManager->executeSendReportToServer(parameter, permitted);
    default:
        return std::nullopt;
    }
}

namespace
{
// The body is dropped after reading, so reading more than this gains nothing.
constexpr qint64 kMaxPendingBodyBytes = 16 * 1024 * 1024;
} // namespace

bool TasksManager::sendPendingReport(const QString& path)
{
    // Only regular files: opening a FIFO would block the main thread.
    if (!QFileInfo(path).isFile())
        return false;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    // The task number is the leading decimal text of the first four bytes.
    const QByteArray head = file.read(4);
    const int task = static_cast<int>(std::strtol(head.constData(), nullptr, 10));
    QByteArray rest = file.read(kMaxPendingBodyBytes);
    const int nul = rest.indexOf('\0');
    if (nul >= 0)
        rest.truncate(nul);
    const QString body = QString::fromLatin1(rest);
    // This version reads pending reports but does not submit them.
    Q_UNUSED(task);
    Q_UNUSED(body);
    return true;
}
