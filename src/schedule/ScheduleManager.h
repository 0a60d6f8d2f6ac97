#pragma once

#include "core/EdrAgentConfig.h"
#include "schedule/ScheduleInfo.h"
#include "schedule/TasksManager.h"
#include "watch/EarlyReports.h"

#include <QDateTime>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>

class AgentDetails;
class ServerDetails;
class HttpManager;
class QTimer;
class ScheduleReader;

// Owns the schedule: the built-in defaults, the overlay from "schedule.db",
// the start-up run and the one-minute timer that dispatches due tasks. Also
// fetches the schedule from the server and starts the updater. Main thread only.
class ScheduleManager : public QObject
{
    Q_OBJECT

public:
    using Dispatch = std::function<bool(TasksManager::TASK_NAMES, const QString&)>;

    static ScheduleManager* getInstance();
    static void releaseInstance();

    ScheduleManager();
    ~ScheduleManager() override;

    void loadDefaultConfig();
    bool getLatestSchedules();

    void startScheduler();
    bool getLatestSceduleFromServer();
    void runScheduler();
    void stopScheduler();
    void runStartUpTasks();

    bool sendReportToServer(TasksManager::TASK_NAMES task, const QString& arg);

    // Watches the host for changes that are reported ahead of the schedule;
    // started once, by startScheduler.
    void startEarlyReports();
    EarlyReports* earlyReports() const { return m_early; }
    // One early report of task through the normal submission; restarts the
    // task's interval count. The result says whether a body was posted.
    EarlyReports::Result runEarlyReport(TasksManager::TASK_NAMES task, const QString& what);
    // What stands in an early report's way: the [Changes] setting, the
    // schedule, registration, a submission of the task already running.
    EarlyReportPolicy::Gates earlyGates(TasksManager::TASK_NAMES task) const;
    // The report route of a task; -1 for tasks without a snapshot report.
    static int routeOf(TasksManager::TASK_NAMES task);
    bool sendPendingReport(const QString& path);
    void sendPendingReports();

    bool getAgentConfigFromServer();
    bool runAgentUpdater();
    bool getLatestAgentFromServer();

    QList<ScheduleInfo> getSchedules() const { return m_schedules; }
    QString getScheduleFilePath() const { return m_scheduleFile; }
    bool isSchedulerRunning() const;

    // Tests route every dispatch (timer and start-up run) through this.
    void setDispatchForTesting(Dispatch dispatch) { m_testDispatch = std::move(dispatch); }

    // The default table, built step by step over the names in task order.
    static void fillDefaultSchedule(QList<ScheduleInfo>& schedules, const QStringList& names);
    // Values of a parsed schedule file over the current entries; counters stay.
    static void overlaySchedule(const ScheduleReader& reader, const QStringList& names,
                                QList<ScheduleInfo>& schedules);
    // One tick over the counters: onDue(i) runs for every enabled entry whose
    // interval has run out, after its counter was zeroed and before it rises.
    static void advanceTick(QList<ScheduleInfo>& schedules, const std::function<void(int)>& onDue);
    // Run at start-up unless it already ran on today's calendar date.
    static bool isDueAtStartUp(const ScheduleInfo& entry, const QDateTime& lastRun, const QDateTime& now);

    // A schedule file beyond this is not parsed: a real one is a few
    // kilobytes, and the parser keeps a node per element in memory.
    static constexpr qint64 kMaxScheduleFileBytes = 1024 * 1024;

public slots:
    void onScheduleTimer();

private:
    bool dispatch(TasksManager::TASK_NAMES task, const QString& arg);

    static ScheduleManager* s_instance;

    QString m_scheduleFile;
    EdrAgentConfig m_config;
    AgentDetails* m_agentDetails;
    ServerDetails* m_serverDetails;
    HttpManager* m_httpManager;
    TasksManager* m_tasks;
    QStringList m_scheduleNames;
    QList<ScheduleInfo> m_schedules;
    QTimer* m_timer;
    Dispatch m_testDispatch;
    EarlyReports* m_early = nullptr;
};
