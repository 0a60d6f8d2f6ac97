#include "watch/EarlyReports.h"

#include "core/CLogger.h"
#include "core/Common.h"
#include "schedule/TasksManager.h"
#include "watch/ChangeWatcher.h"
#include "watch/DirectoryWatcher.h"
#include "watch/InotifyWatcher.h"
#include "watch/ListeningSocketWatcher.h"
#include "watch/ServiceBusWatcher.h"
#include "watch/SoftwareWatcher.h"

#include <QTimer>

#include <cerrno>
#include <cstring>

EarlyReports::EarlyReports(Gates gates, Run run, QObject* parent)
    : QObject(parent), m_gates(std::move(gates)), m_run(std::move(run)),
      m_policy(EarlyReportPolicy::Periods::scaled(Common::timeScale())), m_timer(new QTimer(this)),
      m_inotify(new InotifyWatcher(this))
{
    m_clock.start();
    m_timer->setSingleShot(true);
    connect(m_timer, &QTimer::timeout, this, &EarlyReports::evaluate);
}

EarlyReports::~EarlyReports() = default;

bool EarlyReports::addWatcher(ChangeWatcher* watcher)
{
    watcher->setParent(this);
    connect(watcher, &ChangeWatcher::changed, this, &EarlyReports::onChanged);
    if (!watcher->start()) {
        const QByteArray name = TasksManager::taskNames().value(watcher->task()).toUtf8();
        EDR_LOG->Info(Q_FUNC_INFO, "Changes of %s cannot be watched here; it keeps its schedule",
                      name.constData());
        delete watcher;
        return false;
    }
    m_holders[watcher->task()] = watcher;
    return true;
}

void EarlyReports::startHostWatchers(const QString& root)
{
    if (!m_inotify->open())
        EDR_LOG->Info(Q_FUNC_INFO,
                      "No inotify instance (errno %d: %s): start-up, firewall and package "
                      "changes keep their schedule",
                      errno, std::strerror(errno));
    addWatcher(new ListeningSocketWatcher(TasksManager::Network_Mon));
    addWatcher(new DirectoryWatcher(m_inotify, TasksManager::StartUp,
                                    QStringLiteral("start-up entries changed"),
                                    [root] { return DirectoryWatcher::startupTargets(root); }));
    addWatcher(new DirectoryWatcher(m_inotify, TasksManager::WindowsFirewallStatus,
                                    QStringLiteral("firewall settings changed"),
                                    [root] { return DirectoryWatcher::firewallTargets(root); }));
    addWatcher(new SoftwareWatcher(m_inotify, TasksManager::InstalledSoft, root));
    addWatcher(new ServiceBusWatcher(TasksManager::Services));
}

void EarlyReports::onChanged(int task, const QString& what)
{
    m_policy.changed(task, m_clock.elapsed(), what);
    // No decision can fall due sooner than a quiet time from now; a storm of
    // changes only moves the timer, it never runs the decision per change.
    const int quiet = static_cast<int>(m_policy.periods().quietMs);
    if (m_evaluating)
        m_changedMeanwhile = true;
    else if (!m_timer->isActive() || m_timer->remainingTime() > quiet)
        m_timer->start(quiet);
}

void EarlyReports::evaluate()
{
    m_evaluating = true;
    qint64 wake = -1;
    // Each task at most once per pass: a run may take seconds and see new changes.
    for (int task = 0; task < TasksManager::kTaskCount; ++task) {
        if (!m_policy.pending(task))
            continue;
        EarlyReportPolicy::Gates gates = m_gates(task);
        const auto holder = m_holders.find(task);
        if (holder != m_holders.end() && holder->second->holdsBack())
            gates.busy = true;
        const EarlyReportPolicy::Decision d = m_policy.decide(task, m_clock.elapsed(), gates);
        if (d.verdict == EarlyReportPolicy::Verdict::Run) {
            const QString what = m_policy.reason(task);
            switch (m_run(task, what)) {
            case Result::Posted:
                m_policy.sent(task, m_clock.elapsed());
                break;
            case Result::Unchanged:
            case Result::NotSent:
                m_policy.suppressed(task);
                break;
            }
            // A change seen while it ran is pending again: look again soon.
            if (m_policy.pending(task)) {
                const EarlyReportPolicy::Decision again = m_policy.decide(task, m_clock.elapsed(), gates);
                if (again.verdict == EarlyReportPolicy::Verdict::Wait)
                    wake = wake < 0 ? again.atMs : std::min(wake, again.atMs);
                else if (again.verdict == EarlyReportPolicy::Verdict::Run)
                    wake = wake < 0 ? m_clock.elapsed() : std::min(wake, m_clock.elapsed());
            }
        } else if (d.verdict == EarlyReportPolicy::Verdict::Drop) {
            const QByteArray name = TasksManager::taskNames().value(task).toUtf8();
            EDR_LOG->Debug(Q_FUNC_INFO, "No early report of %s: %s", name.constData(),
                           gates.registered ? "early reports are off or the schedule disables it"
                                            : "the agent is not registered");
        } else if (d.verdict == EarlyReportPolicy::Verdict::Wait) {
            wake = wake < 0 ? d.atMs : std::min(wake, d.atMs);
        }
    }
    m_evaluating = false;
    if (m_changedMeanwhile) {
        m_changedMeanwhile = false;
        const qint64 soon = m_clock.elapsed() + m_policy.periods().quietMs;
        wake = wake < 0 ? soon : std::min(wake, soon);
    }
    if (wake < 0) {
        m_timer->stop();
        return;
    }
    const qint64 delay = std::max<qint64>(0, wake - m_clock.elapsed());
    m_timer->start(static_cast<int>(std::min<qint64>(delay, 24LL * 3600 * 1000)));
}
