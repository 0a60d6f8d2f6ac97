#include "push/SocketManager.h"
#include "core/Common.h"
#include "core/EdrAgentConfig.h"
#include "core/HostPaths.h"
#include "schedule/ScheduleManager.h"

#include "support/TestSupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

using namespace edrtest;

namespace
{
class SocketManagerTest : public ::testing::Test, protected ServerUnderTest
{
protected:
    void SetUp() override
    {
        // Fresh managers: the schedule manager keeps the prefix it was created under.
        SocketManager::releaseInstance();
        ScheduleManager::releaseInstance();
        manager = SocketManager::getInstance();
    }
    void TearDown() override { SocketManager::releaseInstance(); } // its reconnect timer with it
    SocketManager* manager = nullptr;
};
} // namespace

// Every command reaches its handler or is refused before it, orders the policy
// refuses run nothing, and each leaves one audit record.
TEST_F(SocketManagerTest, CommandsAreDispatchedGovernedByPolicyAndAudited)
{
    EdrAgentConfig config;
    config.setSetting(QStringLiteral("Policy/Kill"), QStringLiteral(" DENY "));
    config.setSetting(QStringLiteral("Policy/Update"), QStringLiteral("Deny"));
    config.setSetting(QStringLiteral("Policy/TraceLogReset"), QStringLiteral("deny"));
    config.setSetting(QStringLiteral("Policy/Terminal"), QStringLiteral("maybe"));
    // The report's line must already be in the file while the report is posted.
    QByteArray auditSeenByServer;
    server.setHandler([&](const RecordedRequest& r) {
        auditSeenByServer = HostPaths::readFile(Common::getEdrDirPath() + QStringLiteral("/audit.log"));
        if (r.target.contains("getConfigFile"))
            return CannedReply{200, "<AgentInfo><Interval>7</Interval></AgentInfo>", "application/xml"};
        return CannedReply();
    });
    // Loopback commands come through the listener, the others were pushed.
    QList<QJsonObject> expected;
    auto send = [&](const QString& command, const QJsonValue& task, const char* outcome,
                    const char* peer = "127.0.0.1") {
        const bool pushed = qstrcmp(peer, "127.0.0.1") != 0;
        manager->processCommand(QLatin1String(peer), command, pushed ? AuditLog::Push : AuditLog::Listener);
        expected << QJsonObject{{"channel", pushed ? "push" : "listener"},
                                {"peer", peer},
                                {"command", command},
                                {"task", task},
                                {"outcome", outcome}};
    };
    const QJsonValue none = QJsonValue::Null;

    Sleeper child;
    send(QStringLiteral("ACT#$#3#$#1|%1|req-1").arg(child.pid()), 3, "denied", "192.0.2.1");
    send(QStringLiteral("UPD#$#AGENT"), none, "denied");
    send(QStringLiteral("RESET#$#TRACE_LOG"), none, "denied");
    send(QStringLiteral("RPT#$#18#$#t1|ls"), 18, "denied");
    EXPECT_TRUE(child.running());
    const QByteArray log = prefix.traceLog();
    EXPECT_FALSE(log.contains("Agent Updater!"));
    EXPECT_TRUE(log.contains("refused: policy Kill does not allow it")); // the refused reset kept the log
    EXPECT_TRUE(log.contains("Policy Terminal has the unknown value 'maybe'; treated as deny"));
    EXPECT_EQ(log.count("has the unknown value"), 1); // " DENY " and "Deny" are known
    // The refused kill and terminal order report their usual failure.
    EXPECT_EQ(QJsonDocument::fromJson(server.requests().at(0).body).object(),
              QJsonObject({{"_id", "req-1"}, {"status", 1}, {"message", "Failed to Kill %s!"}}));
    EXPECT_EQ(posted("cmdAndPS/cmdOutput", 2),
              QJsonObject({{"_id", "t1"}, {"cmd", "ls"}, {"status", 1}, {"Error", 0}}));

    // The policy is read again at every order.
    config.setSetting(QStringLiteral("Policy/Kill"), QStringLiteral("Allow"));
    config.setSetting(QStringLiteral("Policy/Update"), QStringLiteral("allow"));
    send(QStringLiteral("ACT#$#3#$#1|%1|req-2").arg(child.pid()), 3, "done", "192.0.2.1");
    const int status = child.reap();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    send(QStringLiteral("RPT#$#$0#$#0"), 0, "done", "10.0.0.5");
    EXPECT_TRUE(auditSeenByServer.endsWith("\"outcome\":\"pending\"     }\n"))
        << auditSeenByServer.constData();
    manager->processCommand(QStringLiteral("10.0.0.5"), QStringLiteral("keep-alive"), AuditLog::Push);
    // Task numbers outside the table never reach the dispatcher.
    for (int task : {25, -1, 4096})
        send(QStringLiteral("ACT#$#%1#$#x").arg(task), task, "malformed");
    send(QStringLiteral("ACT#$#0#$#1|1|x"), 0, "failed"); // agent information takes no orders
    send(QStringLiteral("RPT#$#5"), 5, "failed");
    for (const char* word : {"RPT", "hello", "rpt#$#0"})
        send(QLatin1String(word), none, "malformed");
    EXPECT_FALSE(posted("machineInfo/addMachineInfo", 4).isEmpty()); // and nothing else went out

    send(QStringLiteral("MOD#$#AGENT_CONFIG_CHANGE#$#ignored"), none, "done");
    EXPECT_EQ(server.requests().last().target, "/api/v1/settings/getConfigFile?");
    QFile(Common::getRootPath() + QStringLiteral("/edragentupd.sh")).open(QIODevice::WriteOnly); // empty
    send(QStringLiteral("UPD#$#AGENT"), none, "done");

    // The reset clears the trace log (the audit log outlives it); a trace log
    // that cannot be deleted fails the reset.
    config.setSetting(QStringLiteral("Policy/TraceLogReset"), QStringLiteral("allow"));
    send(QStringLiteral("RESET#$#TRACE_LOG"), none, "done");
    EXPECT_FALSE(prefix.traceLog().contains("refused: policy"));
    ASSERT_TRUE(QFile::remove(Common::getEdrDirPath() + QStringLiteral("/EDR_Track.log")));
    send(QStringLiteral("RESET#$#TRACE_LOG"), none, "failed");

    const QList<QByteArray> records =
        HostPaths::readFile(Common::getEdrDirPath() + QStringLiteral("/audit.log")).trimmed().split('\n');
    ASSERT_EQ(records.size(), expected.size());
    for (int i = 0; i < records.size(); ++i) {
        QJsonObject record = QJsonDocument::fromJson(records[i]).object();
        EXPECT_TRUE(record.take("time").isString()) << records[i].constData();
        EXPECT_EQ(record, expected[i]) << records[i].constData();
    }
}

TEST_F(SocketManagerTest, ReconnectPauseLeavesTheEventLoopRunning)
{
    TimeScale scale(0.05); // the 10 s pause becomes 500 ms
    QElapsedTimer clock;
    clock.start();
    manager->onSocketServerThreadFinished();
    int ticks = 0; // a pause that slept would leave none
    QTimer other;
    QObject::connect(&other, &QTimer::timeout, [&] { ++ticks; });
    other.start(50);
    EXPECT_TRUE(waitUntil([&] { return prefix.traceLog().contains("Connecting to Lan server..."); }, 5000));
    EXPECT_GE(clock.elapsed(), 400);
    EXPECT_GT(ticks, 0);
}

TEST_F(SocketManagerTest, SendMessageToCutsTheTextToItsBuffer)
{
    int port = 0;
    LoopbackSocket listener(LoopbackSocket::listenOn(&port));
    EXPECT_FALSE(manager->sendMessageTo(QStringLiteral("127.0.0.1"), QStringLiteral("x"), 1, false));
    EXPECT_TRUE(
        manager->sendMessageTo(QStringLiteral("127.0.0.1"), QString(5000, 'a'), quint64(port), false));
    LoopbackSocket peer(LoopbackSocket::acceptOne(listener.fd, 5000));
    QByteArray received, chunk;
    while (!(chunk = LoopbackSocket::readSome(peer.fd, 2000)).isEmpty())
        received += chunk;
    EXPECT_EQ(received, QByteArray(4095, 'a')); // the text and its terminator fit 4096 bytes
}
