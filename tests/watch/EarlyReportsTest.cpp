// What reaches the server: the submitter's memory of accepted bodies (early
// reports and SkipUnchanged), the [Changes] settings, and the coordinator
// between a watcher and the run.

#include "watch/EarlyReports.h"
#include "comm/ReportSubmitter.h"
#include "core/EdrAgentConfig.h"
#include "watch/ChangeWatcher.h"

#include "support/TestSupport.h"

#include <QJsonObject>

#include <gtest/gtest.h>

#include <thread>

using namespace edrtest;

namespace
{
const ReportMessages kMessages{"Failed to Network Info.", "Successfully send network to server.",
                               "Failed to send network to server."};

class SubmitterMemory : public ::testing::Test, protected ServerUnderTest
{
protected:
    void SetUp() override { ReportSubmitter::forgetAcceptedBodies(); }
    void TearDown() override { ReportSubmitter::forgetAcceptedBodies(); }

    // One report of route with body {"Port": port} on the given occasion;
    // returns how many requests the server got from it.
    int submit(ReportOccasion occasion, const QString& port, API_NAME route = NETWORK_MONITORING)
    {
        const ReportSubmitter::ScopedOccasion scope(
            occasion, QStringLiteral("Network_Mon (listening sockets changed)"));
        const int before = server.requests().size();
        bool busy = false;
        ReportSubmitter::submitReport("bool N::send()", busy, route, kMessages, [&](QJsonObject& o) {
            o.insert(QStringLiteral("Port"), port);
            return true;
        });
        return server.requests().size() - before;
    }
    void setChanges(const QByteArray& lines)
    {
        writeTestFile(EdrAgentConfig().path(), "AuthCode=tok\n[Changes]\n" + lines);
    }
};
} // namespace

TEST_F(SubmitterMemory, EarlyReportsGoOnlyWhenTheAcceptedBodyDiffers)
{
    // Nothing accepted yet in this run: the first is always posted.
    EXPECT_EQ(submit(ReportOccasion::Early, "22"), 1);
    EXPECT_TRUE(logHas("Early report: Network_Mon (listening sockets changed)"));
    EXPECT_EQ(ReportSubmitter::lastOutcome(), ReportSubmitter::Outcome::Posted);
    EXPECT_EQ(submit(ReportOccasion::Early, "22"), 0); // a port opened and closed again
    EXPECT_EQ(ReportSubmitter::lastOutcome(), ReportSubmitter::Outcome::Unchanged);
    EXPECT_EQ(prefix.traceLog().count("Early report:"), 1);
    EXPECT_EQ(submit(ReportOccasion::Early, "23"), 1);

    // A body the server refused is not what it holds: the same one goes again.
    server.setReply({500, "down", "text/plain"});
    EXPECT_EQ(submit(ReportOccasion::Early, "24"), 1);
    server.setReply({200, "OK", "text/plain"});
    EXPECT_EQ(submit(ReportOccasion::Early, "24"), 1);

    // Memory is per route, and orders from the server are never compared.
    EXPECT_EQ(submit(ReportOccasion::Early, "24", FIREWALL_STATUS), 1);
    EXPECT_EQ(submit(ReportOccasion::Requested, "24"), 1);
    // Without SkipUnchanged a scheduled run posts as it always did.
    EXPECT_EQ(submit(ReportOccasion::Scheduled, "24"), 1);
}

TEST_F(SubmitterMemory, SkipUnchangedHoldsScheduledRunsUntilTheSilenceRunsOut)
{
    setChanges("SkipUnchanged=on\n");
    EXPECT_EQ(submit(ReportOccasion::Scheduled, "22"), 1); // the first of the run
    EXPECT_EQ(submit(ReportOccasion::Scheduled, "22"), 0);
    EXPECT_TRUE(logHas("not posted"));
    EXPECT_EQ(submit(ReportOccasion::Scheduled, "23"), 1);
    EXPECT_EQ(submit(ReportOccasion::Requested, "23"), 1);
    // Routes that are not snapshots (results, output) are never skipped.
    EXPECT_EQ(submit(ReportOccasion::Scheduled, "23", OSQUERY_OUTPUT), 1);
    EXPECT_EQ(submit(ReportOccasion::Scheduled, "23", OSQUERY_OUTPUT), 1);

    // MaxSilenceMinutes=1 scaled down to a millisecond: once it has passed
    // the same body is posted again so the server sees a fresh one.
    const TimeScale scale(1e-6);
    setChanges("SkipUnchanged=on\nMaxSilenceMinutes=1\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(5)); // at least, never at most
    EXPECT_EQ(submit(ReportOccasion::Scheduled, "23"), 1);

    // Settings are read at every use: switched off, it posts again.
    setChanges("SkipUnchanged=off\n");
    EXPECT_EQ(submit(ReportOccasion::Scheduled, "23"), 1);
}

TEST_F(SubmitterMemory, ChangesSettingsFallBackToTheirDefaultsWithOneErrorNamingTheKey)
{
    const EdrAgentConfig config;
    EXPECT_TRUE(config.earlyReports());
    EXPECT_FALSE(config.skipUnchanged());
    EXPECT_EQ(config.maxSilenceMinutes(), 1440);
    setChanges("EarlyReports=Off\nSkipUnchanged=ON\nMaxSilenceMinutes= 90 \n");
    EXPECT_FALSE(config.earlyReports());
    EXPECT_TRUE(config.skipUnchanged());
    EXPECT_EQ(config.maxSilenceMinutes(), 90);
    setChanges("EarlyReports=yes\nSkipUnchanged=1\nMaxSilenceMinutes=0\n");
    EXPECT_TRUE(config.earlyReports());
    EXPECT_FALSE(config.skipUnchanged());
    EXPECT_EQ(config.maxSilenceMinutes(), 1440);
    setChanges("MaxSilenceMinutes=ten\n");
    EXPECT_EQ(config.maxSilenceMinutes(), 1440);
    const QByteArray log = prefix.traceLog();
    EXPECT_EQ(log.count("Changes/EarlyReports 'yes'"), 1);
    EXPECT_EQ(log.count("Changes/SkipUnchanged '1'"), 1);
    EXPECT_EQ(log.count("Changes/MaxSilenceMinutes '0'"), 1);
    EXPECT_EQ(log.count("Changes/MaxSilenceMinutes 'ten'"), 1);
}

namespace
{
class FakeWatcher : public ChangeWatcher
{
public:
    using ChangeWatcher::ChangeWatcher;
    bool start() override { return true; }
    bool holdsBack() const override { return holding; }
    void fire(const QString& what) { notifyChanged(what); }
    bool holding = false;
};

struct Runs {
    QList<QPair<int, QString>> runs;
    QMap<int, EarlyReportPolicy::Gates> gates;
    EarlyReports::Result result = EarlyReports::Result::Posted;
    int count(int task) const
    {
        int n = 0;
        for (const auto& r : runs)
            n += r.first == task;
        return n;
    }
};
} // namespace

TEST(EarlyReports, WatcherChangesRunTheirTaskWithinTheLimitsAndGates)
{
    ScratchPrefix prefix;
    const TimeScale scale(0.002); // quiet 6 ms, one per task per 120 ms
    Runs r;
    EarlyReports early([&](int task) { return r.gates.value(task); },
                       [&](int task, const QString& what) {
                           r.runs.append({task, what});
                           return r.result;
                       });
    auto* network = new FakeWatcher(11);
    auto* software = new FakeWatcher(4);
    auto* startup = new FakeWatcher(1);
    ASSERT_TRUE(early.addWatcher(network) && early.addWatcher(software) && early.addWatcher(startup));

    // A burst gives one run carrying the first change's words.
    network->fire(QStringLiteral("listening sockets changed"));
    network->fire(QStringLiteral("other words"));
    ASSERT_TRUE(waitUntil([&] { return r.count(11) == 1; }, 10000));
    EXPECT_EQ(r.runs.first().second, QStringLiteral("listening sockets changed"));

    // The next change waits out the minute (scaled), then runs.
    QElapsedTimer since;
    since.start();
    network->fire(QStringLiteral("again"));
    ASSERT_TRUE(waitUntil([&] { return r.count(11) == 2; }, 10000));
    EXPECT_GE(since.elapsed(), 100);

    // A disabled task drops its change; a held one waits for its source,
    // while other tasks go on (each seen through the one after it).
    r.gates[1].enabled = false;
    software->holding = true;
    startup->fire(QStringLiteral("start-up entries changed"));
    software->fire(QStringLiteral("packages changed"));
    network->fire(QStringLiteral("third"));
    ASSERT_TRUE(waitUntil([&] { return r.count(11) == 3; }, 10000));
    EXPECT_EQ(r.count(1), 0);
    EXPECT_EQ(r.count(4), 0);
    EXPECT_FALSE(early.policy().pending(1));
    EXPECT_TRUE(early.policy().pending(4));
    software->holding = false;
    ASSERT_TRUE(waitUntil([&] { return r.count(4) == 1; }, 10000));
}
