#include "watch/EarlyReportPolicy.h"

#include <algorithm>
#include <cmath>

namespace
{
qint64 scaledPeriod(qint64 ms, double scale)
{
    return std::max<qint64>(1, std::llround(static_cast<double>(ms) * scale));
}
} // namespace

EarlyReportPolicy::EarlyReportPolicy() : m_periods(Periods()) {}

EarlyReportPolicy::Periods EarlyReportPolicy::Periods::scaled(double scale)
{
    Periods p;
    p.quietMs = scaledPeriod(p.quietMs, scale);
    p.maxDelayMs = scaledPeriod(p.maxDelayMs, scale);
    p.minGapMs = scaledPeriod(p.minGapMs, scale);
    p.windowMs = scaledPeriod(p.windowMs, scale);
    p.busyRetryMs = scaledPeriod(p.busyRetryMs, scale);
    return p;
}

void EarlyReportPolicy::changed(int task, qint64 nowMs, const QString& what)
{
    Task& t = m_tasks[task];
    if (!t.dirty) {
        t.dirty = true;
        t.firstChangeMs = nowMs;
        t.what = what;
    }
    t.lastChangeMs = nowMs;
}

qint64 EarlyReportPolicy::dueMs(const Task& t) const
{
    qint64 due = std::min(t.lastChangeMs + m_periods.quietMs, t.firstChangeMs + m_periods.maxDelayMs);
    if (!t.sentMs.empty())
        due = std::max(due, t.sentMs.back() + m_periods.minGapMs);
    const size_t limit = static_cast<size_t>(std::max(1, m_periods.perWindow));
    if (t.sentMs.size() >= limit)
        due = std::max(due, t.sentMs[t.sentMs.size() - limit] + m_periods.windowMs);
    return due;
}

void EarlyReportPolicy::forget(Task& t)
{
    t.dirty = false;
    t.what.clear();
}

EarlyReportPolicy::Decision EarlyReportPolicy::decide(int task, qint64 nowMs, const Gates& gates)
{
    const auto it = m_tasks.find(task);
    if (it == m_tasks.end() || !it->second.dirty)
        return {Verdict::Idle, -1};
    Task& t = it->second;
    if (!gates.enabled || !gates.registered) {
        forget(t);
        return {Verdict::Drop, -1};
    }
    const qint64 due = dueMs(t);
    if (nowMs < due)
        return {Verdict::Wait, due};
    if (gates.busy)
        return {Verdict::Wait, nowMs + m_periods.busyRetryMs};
    return {Verdict::Run, nowMs};
}

void EarlyReportPolicy::sent(int task, qint64 nowMs)
{
    Task& t = m_tasks[task];
    forget(t);
    t.sentMs.push_back(nowMs);
    while (t.sentMs.size() > static_cast<size_t>(std::max(1, m_periods.perWindow)))
        t.sentMs.pop_front();
}

void EarlyReportPolicy::suppressed(int task)
{
    const auto it = m_tasks.find(task);
    if (it != m_tasks.end())
        forget(it->second);
}

bool EarlyReportPolicy::pending(int task) const
{
    const auto it = m_tasks.find(task);
    return it != m_tasks.end() && it->second.dirty;
}

QString EarlyReportPolicy::reason(int task) const
{
    const auto it = m_tasks.find(task);
    return it == m_tasks.end() ? QString() : it->second.what;
}
