#include "watch/EarlyReportPolicy.h"

#include <gtest/gtest.h>

#include <vector>

namespace
{
using Verdict = EarlyReportPolicy::Verdict;
constexpr int kTask = 11;
const EarlyReportPolicy::Gates kOpen;

// Drives the policy like the coordinator does: at each wake-up it decides,
// reports on Run and sleeps until the time the policy named. Returns the
// times at which reports went out, up to endMs.
std::vector<qint64> runUntil(EarlyReportPolicy& policy, qint64 fromMs, qint64 endMs,
                             const std::vector<qint64>& changes)
{
    std::vector<qint64> reports;
    size_t next = 0;
    qint64 now = fromMs;
    while (now <= endMs) {
        while (next < changes.size() && changes[next] <= now)
            policy.changed(kTask, changes[next++], QStringLiteral("x"));
        const EarlyReportPolicy::Decision d = policy.decide(kTask, now, kOpen);
        qint64 wake = next < changes.size() ? changes[next] : endMs + 1;
        if (d.verdict == Verdict::Run) {
            policy.sent(kTask, now);
            reports.push_back(now);
            continue;
        }
        if (d.verdict == Verdict::Wait)
            wake = std::min(wake, d.atMs);
        EXPECT_GT(wake, now) << "the policy asked to be woken in the past";
        now = wake;
    }
    return reports;
}
} // namespace

TEST(EarlyReportPolicy, BurstsCoalesceAfterQuietTimeOrAtTheLatestAfterMaxDelay)
{
    EarlyReportPolicy policy;
    EXPECT_EQ(policy.decide(kTask, 0, kOpen).verdict, Verdict::Idle);

    // Three changes 1 s apart: one report 3 s after the last.
    EXPECT_EQ(runUntil(policy, 0, 20000, {1000, 2000, 3000}), std::vector<qint64>{6000});

    // A change every 2 s for a minute never leaves 3 s of quiet: the report
    // comes 30 s after the first change all the same.
    EarlyReportPolicy steady;
    std::vector<qint64> every2s;
    for (qint64 t = 100000; t < 160000; t += 2000)
        every2s.push_back(t);
    const std::vector<qint64> sent = runUntil(steady, 100000, 130000, every2s);
    EXPECT_EQ(sent, std::vector<qint64>{130000});
}

TEST(EarlyReportPolicy, LimitsHoldBackButNeverLoseAChange)
{
    // A listener flapping every 10 s for three hours.
    EarlyReportPolicy policy;
    std::vector<qint64> flaps;
    for (qint64 t = 0; t < 3 * 3600000; t += 10000)
        flaps.push_back(t);
    const std::vector<qint64> sent = runUntil(policy, 0, 3 * 3600000 + 60000, flaps);
    ASSERT_FALSE(sent.empty());
    for (size_t i = 1; i < sent.size(); ++i)
        EXPECT_GE(sent[i] - sent[i - 1], 60000) << "report " << i;
    for (size_t i = 10; i < sent.size(); ++i)
        EXPECT_GE(sent[i] - sent[i - 10], 3600000) << "report " << i;
    // About one every six minutes, and the last change still went out.
    EXPECT_GE(sent.size(), 29u);
    EXPECT_LE(sent.size(), 31u);
    EXPECT_GT(sent.back(), flaps.back());

    // A single change right after a report waits for the minute, not longer.
    EarlyReportPolicy gap;
    EXPECT_EQ(runUntil(gap, 0, 200000, {0, 5000}), (std::vector<qint64>{3000, 63000}));
}

TEST(EarlyReportPolicy, GatesDropWaitOrSuppress)
{
    EarlyReportPolicy policy;
    policy.changed(kTask, 0, QStringLiteral("listening sockets changed"));
    policy.changed(kTask, 1000, QStringLiteral("something else"));
    EXPECT_EQ(policy.reason(kTask), QStringLiteral("listening sockets changed"));

    // Busy: asked again a second later, not at once (no busy loop).
    EarlyReportPolicy::Gates busy;
    busy.busy = true;
    const EarlyReportPolicy::Decision wait = policy.decide(kTask, 5000, busy);
    EXPECT_EQ(wait.verdict, Verdict::Wait);
    EXPECT_EQ(wait.atMs, 6000);
    EXPECT_EQ(policy.decide(kTask, 6000, kOpen).verdict, Verdict::Run);

    // An equal body: nothing posted, and it does not count against the limits.
    policy.suppressed(kTask);
    EXPECT_FALSE(policy.pending(kTask));
    policy.changed(kTask, 7000, QStringLiteral("again"));
    EXPECT_EQ(policy.decide(kTask, 10000, kOpen).verdict, Verdict::Run);

    // Disabled, or before registration: the change is dropped, not kept for later.
    for (int which = 0; which < 2; ++which) {
        EarlyReportPolicy closed;
        EarlyReportPolicy::Gates gates;
        (which == 0 ? gates.enabled : gates.registered) = false;
        closed.changed(kTask, 0, QStringLiteral("x"));
        EXPECT_EQ(closed.decide(kTask, 10000, gates).verdict, Verdict::Drop);
        EXPECT_EQ(closed.decide(kTask, 20000, kOpen).verdict, Verdict::Idle);
    }

    // Tasks are counted apart.
    EarlyReportPolicy two;
    two.changed(1, 0, QStringLiteral("a"));
    two.changed(2, 0, QStringLiteral("b"));
    ASSERT_EQ(two.decide(1, 3000, kOpen).verdict, Verdict::Run);
    two.sent(1, 3000);
    EXPECT_EQ(two.decide(2, 3000, kOpen).verdict, Verdict::Run);
}

TEST(EarlyReportPolicy, TimeScaleShrinksEveryPeriod)
{
    EarlyReportPolicy policy(EarlyReportPolicy::Periods::scaled(0.01));
    EXPECT_EQ(runUntil(policy, 0, 2000, {0, 10, 900}), (std::vector<qint64>{40, 930}));
    const EarlyReportPolicy::Periods p = EarlyReportPolicy::Periods::scaled(0.0001);
    EXPECT_EQ(p.quietMs, 1);
    EXPECT_EQ(p.windowMs, 360);
    EXPECT_EQ(p.perWindow, 10);
}
