#pragma once

#include "watch/EarlyReportPolicy.h"

#include <QElapsedTimer>
#include <QObject>

#include <functional>
#include <map>

class ChangeWatcher;
class InotifyWatcher;
class QTimer;

// Turns the watchers' changes into early reports: every change marks its
// task in the policy, and one timer wakes at the next decision the policy
// names. The gates and the run itself come from the scheduler.
class EarlyReports : public QObject
{
    Q_OBJECT
public:
    // Whether an early report ran and what became of it.
    enum class Result { Posted, Unchanged, NotSent };
    using Gates = std::function<EarlyReportPolicy::Gates(int task)>;
    using Run = std::function<Result(int task, const QString& what)>;

    EarlyReports(Gates gates, Run run, QObject* parent = nullptr);
    ~EarlyReports() override;

    // Takes ownership; the watcher starts at once. False when its mechanism
    // is missing (the watcher logged why; it is kept off).
    bool addWatcher(ChangeWatcher* watcher);

    // The watchers of this host (root "/" outside tests): listening sockets,
    // start-up locations, firewall and package databases, services.
    void startHostWatchers(const QString& root = QStringLiteral("/"));

    EarlyReportPolicy& policy() { return m_policy; }
    InotifyWatcher* inotify() const { return m_inotify; }

public slots:
    void onChanged(int task, const QString& what);

private:
    void evaluate();

    Gates m_gates;
    Run m_run;
    EarlyReportPolicy m_policy;
    QElapsedTimer m_clock;
    QTimer* m_timer;
    InotifyWatcher* m_inotify;
    std::map<int, ChangeWatcher*> m_holders; // the watcher that may hold a task back
    bool m_evaluating = false;
    bool m_changedMeanwhile = false;
};
