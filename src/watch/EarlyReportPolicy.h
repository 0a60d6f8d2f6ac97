#pragma once

#include <QString>

#include <deque>
#include <map>

// When a watched change turns into an early report: after a quiet time with
// no further change of that kind, at the latest a while after the first one,
// and never more often than the per-task limits allow. No clock, no I/O: the
// caller passes the monotonic time in milliseconds and the task's gates.
class EarlyReportPolicy
{
public:
    struct Periods {
        qint64 quietMs = 3000;     // no further change for this long
        qint64 maxDelayMs = 30000; // but no later than this after the first change
        qint64 minGapMs = 60000;   // one early report per task per minute
        qint64 windowMs = 3600000; // and at most perWindow within an hour
        int perWindow = 10;
        qint64 busyRetryMs = 1000; // a busy task is looked at again after this
        // Every period multiplied by the time scale (tests and demos).
        static Periods scaled(double scale);
    };

    // What stands in the task's way at the moment of the decision.
    struct Gates {
        bool enabled = true;    // early reports on, and the schedule runs the task
        bool registered = true; // the agent holds a token
        bool busy = false;      // a submission of the task runs, or its source is mid-change
    };

    enum class Verdict {
        Idle, // nothing pending
        Wait, // pending; ask again at the returned time
        Run,  // report now, then call sent() or suppressed()
        Drop, // pending change discarded (gates closed for good)
    };

    struct Decision {
        Verdict verdict = Verdict::Idle;
        qint64 atMs = -1; // for Wait: when to decide again
    };

    EarlyReportPolicy();
    explicit EarlyReportPolicy(const Periods& periods) : m_periods(periods) {}

    void setPeriods(const Periods& periods) { m_periods = periods; }
    const Periods& periods() const { return m_periods; }

    // A change of task's kind seen at nowMs; what says which (first one kept).
    void changed(int task, qint64 nowMs, const QString& what);

    Decision decide(int task, qint64 nowMs, const Gates& gates);

    // The report went out: it counts against the limits, the task is clean.
    void sent(int task, qint64 nowMs);
    // The report was not posted (its body is what the server already has).
    void suppressed(int task);

    bool pending(int task) const;
    QString reason(int task) const;

private:
    struct Task {
        bool dirty = false;
        qint64 firstChangeMs = 0;
        qint64 lastChangeMs = 0;
        QString what;
        std::deque<qint64> sentMs; // the last perWindow early reports
    };

    qint64 dueMs(const Task& t) const;
    void forget(Task& t);

    Periods m_periods;
    std::map<int, Task> m_tasks;
};
