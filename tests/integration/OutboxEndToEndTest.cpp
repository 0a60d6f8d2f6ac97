// End to end: a refused registration, then an outage of the console's HTTP
// API with orders pushed and the agent restarted meanwhile, then recovery.

#include "comm/PendingReport.h"
#include "support/AgentProcess.h"
#include "support/ConsoleProcess.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QMap>
#include <QProcess>
#include <QStandardPaths>

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <sys/file.h>
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

QString pendingDir(const AgentProcess& agent)
{
    return agent.dataDir() + QStringLiteral("/reports/edr/pending");
}

// `edr-agent outbox --flush` on the agent's prefix, as an administrator runs it.
QByteArray flush(const AgentProcess& agent)
{
    QProcess command;
    command.start(QStringLiteral(EDR_AGENT_BIN), {QStringLiteral("--prefix"), agent.prefix(),
                                                  QStringLiteral("outbox"), QStringLiteral("--flush")});
    if (!command.waitForFinished(60000))
        return "did not finish";
    return command.readAllStandardOutput() + command.readAllStandardError();
}

QStringList resultIds(const ConsoleProcess& console)
{
    QStringList ids;
    for (const QJsonObject& r : console.requests(kResultRoute))
        ids << r.value(QStringLiteral("body")).toObject().value(QStringLiteral("_id")).toString();
    return ids;
}

// A registered agent with its push channel up.
bool startConnected(AgentProcess& agent, const ConsoleProcess& console, const QStringList& wrapper = {})
{
    agent.writeServerIni(console.httpPort(), console.socketPort(), 0);
    return agent.start({}, wrapper) && agent.waitForLog("Connected to server socket.", 60000);
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

// The flush request is no stop: a terminal order running when it comes
// finishes and reports its output, and the daemon runs on.
TEST(OutboxEndToEnd, FlushRequestLeavesARunningOrderAlone)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    ConsoleProcess console;
    ASSERT_TRUE(console.isRunning());
    AgentProcess agent;
    agent.setEnv(QStringLiteral("EDR_AGENT_TIME_SCALE"), QStringLiteral("1")); // a 20 s terminal limit
    ASSERT_TRUE(startConnected(agent, console)) << agent.log().constData();
    const QByteArray go = QFile::encodeName(agent.prefix()) + "/go";
    ASSERT_GE(
        console.push("RPT#$#18#$#51|bash -c \"until [ -e " + go + " ]; do sleep 0.05; done; echo finished\""),
        1);
    ASSERT_TRUE(waitUntil([&] { return livingProcesses("until [ -e " + go) == 1; }, 30000));

    EXPECT_TRUE(flush(agent).startsWith("Asked the running agent")) << agent.log().constData();
    QFile(QString::fromLocal8Bit(go)).open(QIODevice::WriteOnly);
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("cmdAndPS/cmdOutput"), 1, 30000));
    const QJsonObject result = console.requests(QStringLiteral("cmdAndPS/cmdOutput"))
                                   .first()
                                   .value(QStringLiteral("body"))
                                   .toObject();
    EXPECT_EQ(result.value(QStringLiteral("status")).toInt(), 2) << agent.log().constData();
    EXPECT_EQ(result.value(QStringLiteral("Output")).toString(), QStringLiteral("finished\n"));
    ASSERT_TRUE(agent.waitForLog("Delivery of pending reports requested", 30000));
    EXPECT_FALSE(agent.log().contains("signal catched"));
    EXPECT_FALSE(agent.waitForExit(0));
}

// A flush (here the test) holds the outbox lock while the daemon starts: the
// daemon takes it once it is free and keeps what fails from then on.
TEST(OutboxEndToEnd, DaemonTakesTheOutboxOnceTheLockIsFree)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    ConsoleProcess console;
    ASSERT_TRUE(console.isRunning());
    AgentProcess agent;
    agent.setEnv(QStringLiteral("EDR_AGENT_TIME_SCALE"), QStringLiteral("0.034"));
    ASSERT_TRUE(QDir().mkpath(pendingDir(agent)));
    const QByteArray lockPath = QFile::encodeName(pendingDir(agent)) + "/.lock";
    int lock = ::open(lockPath.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(lock, 0);
    ASSERT_EQ(::flock(lock, LOCK_EX), 0);
    ASSERT_TRUE(startConnected(agent, console)) << agent.log().constData();
    EXPECT_TRUE(agent.log().contains("is in use by another agent"));
    ::close(lock);

    ASSERT_TRUE(agent.waitForLog("Took the lock of pending directory", 30000)) << agent.log().constData();
    console.admin("POST", "/admin/fault?mode=500");
    ASSERT_GE(console.push("ACT#$#3#$#1|999991|order-A"), 1);
    ASSERT_TRUE(agent.waitForLog("Kept result of task 21", 30000)) << agent.log().constData();
    EXPECT_FALSE(agent.log().contains("Not kept"));
    EXPECT_EQ(agent.log().count("is in use by another agent"), 1); // said once, not at every retry
}

// The pending directory turns read-only (a bind mount in the agent's own
// mount namespace) before a kept result is replayed: it is delivered once,
// and neither the running agent nor a restarted one sends it again.
TEST(OutboxEndToEnd, DeliveredFileThatCannotBeRemovedIsNeverSentAgain)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    if (QStandardPaths::findExecutable(QStringLiteral("unshare")).isEmpty() ||
        QStandardPaths::findExecutable(QStringLiteral("nsenter")).isEmpty())
        GTEST_SKIP() << "needs unshare and nsenter";
    ConsoleProcess console({QStringLiteral("--fault"), QStringLiteral("refuse")});
    ASSERT_TRUE(console.isRunning());
    AgentProcess agent;
    agent.setEnv(QStringLiteral("EDR_AGENT_TIME_SCALE"), QStringLiteral("0.034"));
    // A result kept by an earlier run; replay starts once registration succeeds.
    const QByteArray kept = R"({"_id": "order-A", "message": "x", "status": 1})";
    ASSERT_TRUE(QDir().mkpath(pendingDir(agent)));
    QFile file(pendingDir(agent) + QStringLiteral("/0000000001-21.rpt"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(
        PendingReport::encodeHeader({21, PendingReport::Kind::Result, ACTION_RESULT, 3, 1, kept.size()}) +
        kept);
    file.close();
    agent.writeServerIni(console.httpPort(), console.socketPort(), 0);
    ASSERT_TRUE(agent.start({}, {QStringLiteral("unshare"), QStringLiteral("--mount"),
                                 QStringLiteral("--propagation"), QStringLiteral("private")}));
    ASSERT_TRUE(agent.waitForLog("Registration failed", 30000)) << agent.log().constData();

    // A new read-only mount over the directory; the agent's lock stays open below it.
    ASSERT_EQ(
        QProcess::execute(QStringLiteral("nsenter"),
                          {QStringLiteral("-t"), QString::number(agent.processId()), QStringLiteral("-m"),
                           QStringLiteral("mount"), QStringLiteral("--bind"), QStringLiteral("-o"),
                           QStringLiteral("ro"), pendingDir(agent), pendingDir(agent)}),
        0);
    console.admin("POST", "/admin/fault?mode=none");
    ASSERT_TRUE(agent.waitForLog("which is no longer pending", 30000)) << agent.log().constData();
    ASSERT_TRUE(agent.waitForLog("Connected to server socket.", 30000));
    // A fresh result goes straight out and asks for a replay, as does a flush: neither sends anything more.
    ASSERT_GE(console.push("ACT#$#3#$#1|999992|order-B"), 1);
    ASSERT_TRUE(console.waitForRequests(kResultRoute, 2, 30000)) << agent.log().constData();
    flush(agent);
    ASSERT_TRUE(agent.waitForLog("Delivery of pending reports requested", 30000));
    QProcess listing; // nor does the outbox command list it
    listing.start(QStringLiteral(EDR_AGENT_BIN),
                  {QStringLiteral("--prefix"), agent.prefix(), QStringLiteral("outbox")});
    ASSERT_TRUE(listing.waitForFinished(30000));
    EXPECT_EQ(listing.readAllStandardOutput(), "No pending reports.\n");

    agent.signal(SIGTERM);
    ASSERT_TRUE(agent.waitForExit(20000));
    ASSERT_TRUE(file.exists());
    ASSERT_TRUE(agent.start());
    ASSERT_TRUE(agent.waitForLog("Connected to server socket.", 60000, 2)) << agent.log().constData();
    ASSERT_GE(console.push("ACT#$#3#$#1|999993|order-C"), 1);
    ASSERT_TRUE(waitUntil([&] { return resultIds(console).contains(QStringLiteral("order-C")); }, 30000));
    EXPECT_EQ(resultIds(console),
              (QStringList{QStringLiteral("order-A"), QStringLiteral("order-B"), QStringLiteral("order-C")}))
        << agent.log().constData();
    EXPECT_FALSE(file.exists());
}
