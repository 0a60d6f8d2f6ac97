#include "schedule/ScheduleManager.h"

#include "comm/ApiManager.h"
#include "comm/HttpManager.h"
#include "comm/ReportSubmitter.h"
#include "core/CLogger.h"
#include "core/Common.h"
#include "identity/AgentDetails.h"
#include "identity/ServerDetails.h"
#include "schedule/ScheduleReader.h"
#include "schedule/UpdaterLauncher.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QTimer>

#include <cerrno>

ScheduleManager* ScheduleManager::s_instance = nullptr;

namespace
{
constexpr int kTickMs = 60000;

TasksManager::TASK_NAMES taskAt(int position)
{
    return static_cast<TasksManager::TASK_NAMES>(position);
}
} // namespace

ScheduleManager* ScheduleManager::getInstance()
{
    if (!s_instance)
        s_instance = new ScheduleManager();
    return s_instance;
}

void ScheduleManager::releaseInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

ScheduleManager::ScheduleManager()
    : m_agentDetails(AgentDetails::getInstance()), m_serverDetails(ServerDetails::getInstance()),
      m_httpManager(HttpManager::getInstance()), m_tasks(TasksManager::getInstance()),
      m_timer(new QTimer(this))
{
    m_scheduleNames = TasksManager::taskNames();
    m_scheduleFile = Common::getEdrDirPath() + QStringLiteral("/schedule.db");
    connect(m_timer, &QTimer::timeout, this, &ScheduleManager::onScheduleTimer);
    loadDefaultConfig();
}

ScheduleManager::~ScheduleManager()
{
    m_timer->stop();
}

void ScheduleManager::fillDefaultSchedule(QList<ScheduleInfo>& schedules, const QStringList& names)
{
    for (int i = 0; i < names.size(); ++i) {
        if (schedules.size() <= i)
            schedules.insert(i, ScheduleInfo());
        ScheduleInfo& entry = schedules[i];
        entry.setScheduleName(names.at(i));
        entry.setEnable(false);
        entry.setRunOnStart(true);
        entry.setInterval(1440);
        entry.setRetryInterval(15);
        entry.setCurrentInterval(0);
    }
    auto set = [&schedules](int i, bool enable, unsigned int interval) {
        if (i >= schedules.size())
            return;
        schedules[i].setEnable(enable);
        schedules[i].setRunOnStart(true);
        schedules[i].setInterval(interval);
        schedules[i].setRetryInterval(15);
    };
    set(TasksManager::AgentInfo, true, 15);
    set(TasksManager::StartUp, true, 180);
    set(TasksManager::Services, true, 180);
    set(TasksManager::Processes, true, 180);
    set(TasksManager::InstalledSoft, true, 1440);
    if (schedules.size() > TasksManager::TaskSchedule)
        schedules[TasksManager::TaskSchedule].setEnable(true);
    set(TasksManager::Network_Mon, true, 180);
    set(TasksManager::HardwareInfo, true, 180);
    set(TasksManager::Event_Logs, true, 60);
    if (schedules.size() > TasksManager::CReports_Logs)
        schedules[TasksManager::CReports_Logs].setEnable(false);
}

void ScheduleManager::loadDefaultConfig()
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    fillDefaultSchedule(m_schedules, m_scheduleNames);
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
}

void ScheduleManager::overlaySchedule(const ScheduleReader& reader, const QStringList& names,
                                      QList<ScheduleInfo>& schedules)
{
    for (int i = 0; i < names.size(); ++i) {
        if (schedules.size() <= i)
            schedules.insert(i, ScheduleInfo());
        const std::optional<ScheduleReader::TaskValues> values = reader.task(names.at(i));
        if (!values)
            continue;
        ScheduleInfo& entry = schedules[i];
        if (values->enabled)
            entry.setEnable(*values->enabled != 0);
        if (values->runOnStart)
            entry.setRunOnStart(*values->runOnStart != 0);
        if (values->interval)
            entry.setInterval(*values->interval);
        if (values->retryInterval)
            entry.setRetryInterval(*values->retryInterval);
    }
}

bool ScheduleManager::getLatestSchedules()
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    QFile file(m_scheduleFile);
    // Only a regular file is opened: a FIFO in its place would block.
    if (!QFileInfo(m_scheduleFile).isFile() || !file.open(QIODevice::ReadOnly)) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Failed to read Schedule DB Failed!");
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return false;
    }
    // Read one byte past the cap so an oversized file is recognised whatever
    // size the file system reports.
    const QByteArray content = file.read(kMaxScheduleFileBytes + 1);
    file.close();
    // An oversized or hostile file (too deep for the parser's recursion) is
    // refused like any other document that does not parse.
    ScheduleReader reader(content.size() > kMaxScheduleFileBytes ? QByteArray() : content);
    if (reader.parse() != ScheduleReader::Result::Parsed) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "CATCHED");
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return false;
    }
    overlaySchedule(reader, m_scheduleNames, m_schedules);
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
    return true;
}

void ScheduleManager::startScheduler()
{
    // Without a fresh schedule from the server the defaults run, even when a
    // file from an earlier run is on disk.
    if (!getLatestSceduleFromServer())
        loadDefaultConfig();
    runStartUpTasks();
    runScheduler();
    startEarlyReports();
}

void ScheduleManager::startEarlyReports()
{
    if (m_early)
        return;
    m_early = new EarlyReports(
        [this](int task) { return earlyGates(taskAt(task)); },
        [this](int task, const QString& what) { return runEarlyReport(taskAt(task), what); }, this);
    m_early->startHostWatchers();
}

int ScheduleManager::routeOf(TasksManager::TASK_NAMES task)
{
    switch (task) {
    case TasksManager::StartUp:
        return STARTUP_APPS;
    case TasksManager::Services:
        return SERVICES;
    case TasksManager::Processes:
        return PROCESSES;
    case TasksManager::InstalledSoft:
        return INSTALLED_SOFTWARE;
    case TasksManager::HardwareInfo:
        return HARDWARE_INFO;
    case TasksManager::Network_Mon:
        return NETWORK_MONITORING;
    case TasksManager::WindowsFirewallStatus:
        return FIREWALL_STATUS;
    default:
        return -1;
    }
}

EarlyReportPolicy::Gates ScheduleManager::earlyGates(TasksManager::TASK_NAMES task) const
{
    EarlyReportPolicy::Gates gates;
    const int route = routeOf(task);
    // Processes and hardware change all the time or never: not sent early.
    const bool watched = task == TasksManager::StartUp || task == TasksManager::Services ||
                         task == TasksManager::InstalledSoft || task == TasksManager::Network_Mon ||
                         task == TasksManager::WindowsFirewallStatus;
    gates.enabled =
        watched && task < m_schedules.size() && m_schedules.at(task).getEnable() && m_config.earlyReports();
    gates.registered = !m_config.getAuthCode().isEmpty();
    gates.busy = route >= 0 && ReportSubmitter::submitting(static_cast<API_NAME>(route));
    return gates;
}

EarlyReports::Result ScheduleManager::runEarlyReport(TasksManager::TASK_NAMES task, const QString& what)
{
    if (task < 0 || task >= m_schedules.size())
        return EarlyReports::Result::NotSent;
    // The early run stands for the scheduled one: the interval starts again.
    m_schedules[task].setCurrentInterval(0);
    const QString name = m_schedules.at(task).getScheduleName();
    const ReportSubmitter::ScopedOccasion occasion(ReportOccasion::Early,
                                                   name + QStringLiteral(" (") + what + QLatin1Char(')'));
    ReportSubmitter::resetLastOutcome();
    dispatch(task, QString());
    switch (ReportSubmitter::lastOutcome()) {
    case ReportSubmitter::Outcome::Posted:
    case ReportSubmitter::Outcome::Failed:
        return EarlyReports::Result::Posted;
    case ReportSubmitter::Outcome::Unchanged:
        return EarlyReports::Result::Unchanged;
    default:
        return EarlyReports::Result::NotSent;
    }
}

bool ScheduleManager::getLatestSceduleFromServer()
{
    if (!getAgentConfigFromServer())
        return false;
    return getLatestSchedules();
}

void ScheduleManager::runScheduler()
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    m_timer->setSingleShot(false);
    m_timer->start(Common::scaledMs(kTickMs));
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
}

void ScheduleManager::stopScheduler()
{
    m_timer->stop();
}

bool ScheduleManager::isSchedulerRunning() const
{
    return m_timer->isActive();
}

void ScheduleManager::advanceTick(QList<ScheduleInfo>& schedules, const std::function<void(int)>& onDue)
{
    const int count = schedules.size();
    for (int i = 0; i < count && i < schedules.size(); ++i) {
        if (!schedules.at(i).getEnable())
            continue;
        if (schedules.at(i).getCurrentInterval() >= schedules.at(i).getInterval()) {
            schedules[i].setCurrentInterval(0);
            onDue(i);
        }
        // The run may have replaced the list; only touch what is still there.
        if (i < schedules.size())
            schedules[i].increaseCurrentInterval();
    }
}

void ScheduleManager::onScheduleTimer()
{
    // The lines name this slot, not the lambda.
    const char* const origin = Q_FUNC_INFO;
    const ReportSubmitter::ScopedOccasion occasion(ReportOccasion::Scheduled);
    advanceTick(m_schedules, [this, origin](int i) {
        const QByteArray name = m_schedules.at(i).getScheduleName().toUtf8();
        EDR_LOG->Info(origin, "Schedule Matched! Task Name: %s", name.constData());
        if (sendReportToServer(taskAt(i), QString()))
            EDR_LOG->Trace(origin, "Successfully send %s report to server.", name.constData());
        else
            EDR_LOG->Error(origin, errno, "Failed to send %s report to server.", name.constData());
    });
}

bool ScheduleManager::isDueAtStartUp(const ScheduleInfo& entry, const QDateTime& lastRun,
                                     const QDateTime& now)
{
    if (!entry.getEnable() || !entry.getRunOnStart())
        return false;
    // The stored time may carry the offset it was written in; the calendar
    // that counts is this machine's.
    return !lastRun.isValid() || lastRun.toLocalTime().date() < now.toLocalTime().date();
}

void ScheduleManager::runStartUpTasks()
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    const QDateTime now = QDateTime::currentDateTime();
    const ReportSubmitter::ScopedOccasion occasion(ReportOccasion::Scheduled);
    const QList<ScheduleInfo> schedules = m_schedules;
    for (int i = 0; i < schedules.size() && i < TasksManager::kTaskCount; ++i) {
        const ScheduleInfo& entry = schedules.at(i);
        const QDateTime lastRun = m_config.getTaskLastRunTime(entry.getScheduleName());
        if (isDueAtStartUp(entry, lastRun, now))
            dispatch(taskAt(i), QString());
    }
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
}

bool ScheduleManager::dispatch(TasksManager::TASK_NAMES task, const QString& arg)
{
    if (m_testDispatch)
        return m_testDispatch(task, arg);
    return m_tasks->sendReportToServer(task, arg);
}

bool ScheduleManager::sendReportToServer(TasksManager::TASK_NAMES task, const QString& arg)
{
    // Scheduled runs carry no parameter, whatever the caller passed.
    Q_UNUSED(arg);
    return dispatch(task, QString());
}

bool ScheduleManager::sendPendingReport(const QString& path)
{
    return m_tasks->sendPendingReport(path);
}

void ScheduleManager::sendPendingReports()
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    const QDir dir(Common::getReportsPath() + QStringLiteral("/edr/pending"));
    const QFileInfoList entries = dir.entryInfoList(QStringList{QStringLiteral("*.rpt")});
    for (const QFileInfo& entry : entries) {
        const QByteArray name = entry.fileName().toUtf8();
        if (sendPendingReport(entry.absoluteFilePath()))
            EDR_LOG->Trace(Q_FUNC_INFO, "Successfully Send Pending Report: %s", name.constData());
        else
            EDR_LOG->Error(Q_FUNC_INFO, errno, "Failed to Send Pending Report: %s", name.constData());
    }
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
}

bool ScheduleManager::getAgentConfigFromServer()
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    const QString url = ApiManager::getAPI(CONFIG_FILE);
    QString response;
    // No larger than the schedule reader would parse.
    if (!m_httpManager->sendDataToServer(false, url, 0, QMap<QString, QString>(), response,
                                         kMaxScheduleFileBytes)) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Failed to get Agent Config file server.");
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return false;
    }
    EDR_LOG->Info(Q_FUNC_INFO, "Successfully get Agent Config file from server.");
    EDR_LOG->Debug(Q_FUNC_INFO, "Response: %s", qUtf8Printable(response));

    // As for reading: only a regular file (or none yet); opening a FIFO for
    // writing would block until some reader came along.
    const QFileInfo existing(m_scheduleFile);
    QFile file(m_scheduleFile);
    if ((existing.exists() && !existing.isFile()) || !file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Failed to open Agent Config file for write.");
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return false;
    }
    file.write(response.toUtf8());
    file.close();
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
    return true;
}

bool ScheduleManager::runAgentUpdater()
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    const QString script = Common::getRootPath() + QStringLiteral("/edragentupd.sh");
    // The script may stop and replace this process, so it is not waited for.
    const bool started = UpdaterLauncher().start(script) != UpdaterLauncher::Outcome::Failed;
    if (started)
        EDR_LOG->Info(Q_FUNC_INFO, "Sucessfully Started Agent Updater.");
    else
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Failed to start Agent Updater.");
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
    return started;
}

bool ScheduleManager::getLatestAgentFromServer()
{
    return runAgentUpdater();
}
