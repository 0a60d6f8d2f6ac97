// End to end: a refused registration, then an outage of the console's HTTP
// API with orders pushed and the agent restarted meanwhile, then recovery.

#include "support/AgentProcess.h"
#include "support/ConsoleProcess.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QMap>

#include <gtest/gtest.h>

#include <csignal>
#include <unistd.h>

using namespace edrtest;

namespace
{
const QString kResultRoute = QStringLiteral("settings/InvSettingsOutput");

// Report routes are shared (agent info and hardware both use addMachineInfo);
// the body's keys tell the reports apart.
QString reportKey(const QJsonObject& request)
{
    const QStringList keys = request.value(QStringLiteral("body")).toObject().keys();
    return request.value(QStringLiteral("route")).toString() + QLatin1Char('|') + keys.join(QLatin1Char(','));
}
} // namespace

TEST(OutboxEndToEnd, OutageWithRestartDeliversLatestSnapshotsAndEveryResultOnceInOrder)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    // Registration refused at first: retried, and nothing else opened meanwhile.
    ConsoleProcess console({QStringLiteral("--fault"), QStringLiteral("refuse")});
    ASSERT_TRUE(console.isRunning());
    AgentProcess agent;
    // A 2 s tick: the default schedule's next agent-information run is 30 s
    // after start, well past the replay this test watches.
    agent.setEnv(QStringLiteral("EDR_AGENT_TIME_SCALE"), QStringLiteral("0.034"));
    agent.writeServerIni(console.httpPort(), console.socketPort(), 0);
    ASSERT_TRUE(agent.start());
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/registerAgent"), 3, 30000));
    EXPECT_EQ(console.requests().size(),
              console.requests(QStringLiteral("machineInfo/registerAgent")).size());
    EXPECT_TRUE(console.connections().isEmpty());
    console.admin("POST", "/admin/fault?mode=none");
    ASSERT_TRUE(agent.waitForLog("Connected to server socket.", 30000)) << agent.log().constData();
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addProcesses"), 1, 60000));

    console.admin("POST", "/admin/fault?mode=500");
    const int outageStart = console.requests().size();
    ASSERT_EQ(console.push("ACT#$#3#$#1|999991|order-A"), 1);
    ASSERT_TRUE(agent.waitForLog("Kept result of task 21", 60000)) << agent.log().constData();

    // Killed outright in the middle of the outage (the lock goes with the
    // process) and started again: start-up reports fail too.
    agent.signal(SIGKILL);
    ASSERT_TRUE(agent.waitForExit(20000));
    ASSERT_TRUE(agent.start());
    ASSERT_TRUE(agent.waitForLog("Connected to server socket.", 60000, 2));
    ASSERT_TRUE(agent.waitForLog("Kept snapshot of task 3", 60000, 1));
    ASSERT_GE(console.push("ACT#$#3#$#1|999992|order-B"), 1);
    ASSERT_TRUE(agent.waitForLog("Kept result of task 21", 30000, 2));
    ASSERT_GE(console.push("ACT#$#3#$#1|999993|order-C"), 1);
    ASSERT_TRUE(agent.waitForLog("Kept result of task 21", 30000, 3));

    console.admin("POST", "/admin/fault?mode=none");
    const int outageEnd = console.requests().size();
    // A new order after the outage queues behind the three before it and
    // sets the replay going.
    ASSERT_GE(console.push("ACT#$#3#$#1|999994|order-D"), 1);
    // Three failed posts of results, then all four delivered.
    ASSERT_TRUE(console.waitForRequests(kResultRoute, 7, 60000)) << agent.log().constData();
    const QDir pending(agent.dataDir() + QStringLiteral("/reports/edr/pending"));
    ASSERT_TRUE(waitUntil([&] { return pending.entryList({"*.rpt"}).isEmpty(); }, 30000))
        << agent.log().constData();

    const QList<QJsonObject> all = console.requests();
    QMap<QString, QString> lastFailed; // report -> body of its last failed post
    QMap<QString, QStringList> delivered;
    QStringList results;
    // Everything kept was queued before order-D, so the replay ends with its
    // result; a scheduled run after that (the machine may be slow) is not a
    // replay and is left out.
    for (int i = outageStart; i < all.size() && !results.contains(QStringLiteral("order-D")); ++i) {
        const QString raw = all[i].value(QStringLiteral("raw_body")).toString();
        if (all[i].value(QStringLiteral("route")).toString() == kResultRoute) {
            if (i >= outageEnd)
                results << all[i]
                               .value(QStringLiteral("body"))
                               .toObject()
                               .value(QStringLiteral("_id"))
                               .toString();
        } else if (all[i].value(QStringLiteral("method")).toString() == QLatin1String("POST")) {
            if (i < outageEnd)
                lastFailed[reportKey(all[i])] = raw;
            else
                delivered[reportKey(all[i])] << raw;
        }
    }
    ASSERT_GE(lastFailed.size(), 2) << "agent information and processes at least";
    EXPECT_EQ(results, (QStringList{QStringLiteral("order-A"), QStringLiteral("order-B"),
                                    QStringLiteral("order-C"), QStringLiteral("order-D")}));
    EXPECT_EQ(delivered.keys(), lastFailed.keys());
    for (auto it = lastFailed.cbegin(); it != lastFailed.cend(); ++it)
        EXPECT_EQ(delivered.value(it.key()), QStringList{it.value()}) << qPrintable(it.key());
    EXPECT_FALSE(pending.exists(QStringLiteral("bad")));
}
