#pragma once

#include "control/ProcessInfo.h"
#include "core/HostPaths.h"
#include "core/ToolRunner.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <optional>

// The process list report, the server's kill order and starting a program.
class ProcessManager
{
public:
    static ProcessManager* getInstance();
    static void releaseInstance();

    explicit ProcessManager(const HostPaths& host = HostPaths(), const ToolRunner& runner = ToolRunner());

    static bool isNumeric(const QString& text);

    bool getProcessDetailsByPID(int pid, QJsonObject& record);
    bool getRunningProcess(QJsonObject& report);
    bool killProcess(unsigned int pid);
    bool killProcess(const QString& name);
    bool startProcess(const QString& program, const QStringList& arguments, bool, unsigned int waitForExit);

    // Task 3: the periodic report and the kill order.
    bool sendRptToServer(const QString& parameter);
    // Not permitted: nothing runs and the failure result is posted.
    bool executeSendReportToServer(const QString& parameter, bool permitted = true);
    // Exactly the body sendRptToServer posts.
    bool collectReport(QJsonObject& body) { return getRunningProcess(body); }

    // Pure helpers, exposed for tests and fuzzing.
    // Adds "UserId", "ParentProcessId", "ThreadCount" and "Status" from a status file.
    static void parseStatus(const QByteArray& status, QJsonObject& record);
    // A kill target the agent accepts: decimal digits only, 1 to INT_MAX.
    static std::optional<unsigned int> parseKillTarget(const QString& target);
    // The "Tgid" of a status file: the process a thread id belongs to.
    static std::optional<int> parseThreadGroup(const QByteArray& status);
    static constexpr const char* kKillSucceeded = "Successfully Killed %s!";
    static constexpr const char* kKillFailed = "Failed to Kill %s!";

private:
    static ProcessManager* s_instance;

    HostPaths m_host;
    ToolRunner m_runner;
    ProcessInfo m_info;
    bool m_reportBusy = false;
    bool m_actionBusy = false;
};
