#pragma once

#include <QString>
#include <QStringList>

#include <optional>

class AgentManager;
class StartupAppsManager;
class ProcessManager;
class HardwareInfoManager;
class InstallSoftManager;
class UsersAccountManager;
class ServiceManager;
class NetworkMonManager;
class FirewallManager;
class TerminalManager;
class OSQueryManager;

// Turns a task number into a call on the manager that owns the work. Returns
// false whatever the manager did: only the managers' own log lines tell.
class TasksManager
{
public:
    enum TASK_NAMES {
        AgentInfo = 0,
        StartUp = 1,
        Services = 2,
        Processes = 3,
        InstalledSoft = 4,
        TaskSchedule = 5,
        Network = 6,
        HardwareInfo = 7,
        WindowsUpdates = 8,
        Registry = 9,
        Explorer = 10,
        Network_Mon = 11,
        AppCon_Logs = 12,
        Quorvex_Logs = 13,
        WebProt_Logs = 14,
        Network_Logs = 15,
        Event_Logs = 16,
        CReports_Logs = 17,
        MTasks = 18,
        Termina = 19,
        Powershel = 20,
        ActionResponse = 21,
        WindowsFirewallStatus = 22,
        ASR_Rules = 23,
        OS_Query = 24,
    };
    static constexpr int kTaskCount = 25;

    static TasksManager* getInstance();
    static void releaseInstance();

    TasksManager();

    // The schedule names in task-number order.
    static QStringList taskNames();

    bool sendReportToServer(TASK_NAMES task, const QString& parameter);
    bool executeSendReportToServer(TASK_NAMES task, const QString& parameter);
    bool sendPendingReport(const QString& path);

    // The same dispatch, passing the manager's own result back (nullopt: no
    // handler). A refused order runs nothing and posts the manager's failure
    // result; only the orders a policy key governs can be refused.
    std::optional<bool> carryOutReport(TASK_NAMES task, const QString& parameter, bool permitted = true);
    std::optional<bool> carryOutAction(TASK_NAMES task, const QString& parameter, bool permitted = true);

private:
    static TasksManager* s_instance;
    AgentManager* m_agentManager;
    HardwareInfoManager* m_hardwareInfoManager;
    ProcessManager* m_processManager;
    ServiceManager* m_serviceManager;
    StartupAppsManager* m_startupAppsManager;
    InstallSoftManager* m_installSoftManager;
    UsersAccountManager* m_usersAccountManager; // held, reached by no task
    NetworkMonManager* m_networkMonManager;
    FirewallManager* m_firewallManager;
    TerminalManager* m_terminalManager;
    OSQueryManager* m_osQueryManager;
};
