#include "push/SocketManager.h"
#include "control/OSQueryManager.h"
#include "core/Common.h"
#include "core/EdrAgentConfig.h"
#include "core/HostPaths.h"
#include "push/OrderPolicy.h"
#include "schedule/ScheduleManager.h"
#include "schedule/TasksManager.h"

#include "support/TestSupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QScopeGuard>
#include <QTimer>

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace edrtest;

// Audit records read as JSON in failure messages.
void PrintTo(const QJsonObject& object, std::ostream* out)
{
    *out << QJsonDocument(object).toJson(QJsonDocument::Compact).constData();
}

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
    // The audit records written so far, their times taken out.
    QList<QJsonObject> auditRecords() const
    {
        QList<QJsonObject> out;
        const QByteArray log = HostPaths::readFile(Common::getEdrDirPath() + QStringLiteral("/audit.log"));
        for (const QByteArray& line : log.split('\n')) {
            if (line.isEmpty())
                continue;
            QJsonObject record = QJsonDocument::fromJson(line).object();
            EXPECT_TRUE(record.take("time").isString()) << line.constData();
            out << record;
        }
        return out;
    }
    SocketManager* manager = nullptr;
};

// Sets or clears the immutable attribute: not even root can then write the file.
bool setImmutable(const QString& path, bool on)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    int flags = 0;
    bool ok = fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    ok = ok && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    if (fd >= 0)
        ::close(fd);
    return ok;
}
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
                    const char* peer = "127.0.0.1", const QJsonValue& delivered = QJsonValue::Undefined) {
        const bool pushed = qstrcmp(peer, "127.0.0.1") != 0;
        manager->processCommand(QLatin1String(peer), command.toUtf8(),
                                pushed ? AuditLog::Push : AuditLog::Listener);
        expected << QJsonObject{{"channel", pushed ? "push" : "listener"},
                                {"peer", peer},
                                {"command", command},
                                {"task", task},
                                {"outcome", outcome}};
        if (!delivered.isUndefined())
            expected.last().insert("delivered", delivered);
    };
    const QJsonValue none = QJsonValue::Null;

    Sleeper child;
    send(QStringLiteral("ACT#$#3#$#1|%1|req-1").arg(child.pid()), 3, "denied", "192.0.2.1", true);
    send(QStringLiteral("UPD#$#AGENT"), none, "denied");
    send(QStringLiteral("RESET#$#TRACE_LOG"), none, "denied");
    send(QStringLiteral("RPT#$#18#$#t1|ls"), 18, "denied", "127.0.0.1", true);
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
    send(QStringLiteral("ACT#$#3#$#1|%1|req-2").arg(child.pid()), 3, "done", "192.0.2.1", true);
    const int status = child.reap();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    send(QStringLiteral("RPT#$#$0#$#0"), 0, "done", "10.0.0.5", true);
    EXPECT_TRUE(auditSeenByServer.trimmed().split('\n').last().contains("\"outcome\":\"pending\" "))
        << auditSeenByServer.constData();
    manager->processCommand(QStringLiteral("10.0.0.5"), "keep-alive", AuditLog::Push);
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

    EXPECT_EQ(auditRecords(), expected);
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

// 1.4 KiB that is not UTF-8 ahead of the part that runs: the record holds every
// byte received, the parser sees the text as before.
TEST_F(SocketManagerTest, AuditRecordsTheCommandBytesAsReceived)
{
    const QByteArray command = "RPT#$#18#$#t1|true " + QByteArray(1434, '\xff') + " && id";
    manager->processCommand(QStringLiteral("127.0.0.1"), command, AuditLog::Listener);
    const QByteArray log = HostPaths::readFile(Common::getEdrDirPath() + QStringLiteral("/audit.log"));
    QByteArray escaped;
    for (int i = 0; i < 1434; ++i)
        escaped += "\\udcff";
    EXPECT_TRUE(log.contains(R"("command":"RPT#$#18#$#t1|true )" + escaped + R"( && id",)"))
        << log.constData();
    EXPECT_EQ(auditRecords().value(0)["outcome"], "done");
    EXPECT_EQ(posted("cmdAndPS/cmdOutput")["status"], 2);
}

TEST_F(SocketManagerTest, OrderWithoutItsAuditRecordRunsOnlyWhenThePolicyAllows)
{
    EdrAgentConfig config;
    EXPECT_TRUE(OrderPolicy().describe().endsWith("TraceLogReset=allow\nAuditFailure=deny\n"));
    const QString path = Common::getEdrDirPath() + QStringLiteral("/audit.log");
    QFile(path).open(QIODevice::WriteOnly);
    ASSERT_TRUE(setImmutable(path, true));
    const auto writable = qScopeGuard([&] { setImmutable(path, false); });

    Sleeper child;
    manager->processCommand(QStringLiteral("192.0.2.1"),
                            QStringLiteral("ACT#$#3#$#1|%1|req-1").arg(child.pid()).toUtf8(), AuditLog::Push);
    EXPECT_TRUE(child.running());
    EXPECT_EQ(QJsonDocument::fromJson(server.requests().value(0).body).object(),
              QJsonObject({{"_id", "req-1"}, {"status", 1}, {"message", "Failed to Kill %s!"}}));
    EXPECT_TRUE(logHas("Cannot write the audit log"));
    EXPECT_TRUE(logHas("not carried out: its audit record cannot be written and policy AuditFailure does not "
                       "allow it (errno 1: Operation not permitted)"));

    config.setSetting(QStringLiteral("Policy/AuditFailure"), QStringLiteral("allow"));
    EXPECT_TRUE(OrderPolicy().describe().contains("\nAuditFailure=allow\n"));
    manager->processCommand(QStringLiteral("192.0.2.1"),
                            QStringLiteral("ACT#$#3#$#1|%1|req-2").arg(child.pid()).toUtf8(), AuditLog::Push);
    const int status = child.reap();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(HostPaths::readFile(path), QByteArray());
}

// The outcome says whether the order did what it was asked; "delivered" whether
// the server got its result.
TEST_F(SocketManagerTest, OutcomeIsTheOrdersOwnAndDeliveryAKeyOfItsOwn)
{
    TimeScale scale(0.01); // the pauses between post attempts
    const QString osquery = OSQueryManager::osqueryPath();
    ASSERT_TRUE(QDir().mkpath(QFileInfo(osquery).path()));
    auto fakeOsquery = [&](const QByteArray& body) {
        QFile script(osquery);
        ASSERT_TRUE(script.open(QIODevice::WriteOnly));
        script.write("#!/bin/sh\n" + body);
        script.close();
        script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    };
    Sleeper living;
    int gone = 0;
    {
        Sleeper dead;
        gone = dead.pid();
        ::kill(gone, SIGKILL);
        dead.reap();
    }
    const QString kill = QStringLiteral("ACT#$#%1#$#1|%2|k").arg(TasksManager::Processes);
    const QString terminal = QStringLiteral("RPT#$#%1#$#t|").arg(TasksManager::MTasks);
    const QString query = QStringLiteral("RPT#$#%1#$#'q|select 1'").arg(TasksManager::OS_Query);
    const QString report = QStringLiteral("RPT#$#%1#$#0").arg(TasksManager::AgentInfo);
    const QJsonValue none = QJsonValue::Undefined;
    const struct {
        QString command;
        QByteArray osquery;
        int status; // the server's answer
        const char* outcome;
        QJsonValue delivered;
    } cases[] = {
        {kill.arg(gone), {}, 200, "failed", true},
        {kill.arg(living.pid()), {}, 500, "done", false},
        {terminal + "true", {}, 200, "done", true},
        {terminal + "no-such-program-here", {}, 200, "failed", true},
        {terminal + "true", {}, 500, "done", false},
        {query, "echo '[]'\n", 200, "done", true},
        {query, "echo garbage\n", 200, "failed", none}, // a failed query posts nothing
        {query, "echo '[]'\n", 500, "done", false},
        {report, {}, 200, "done", true},
        {report, {}, 500, "failed", false},
    };
    QList<QJsonObject> expected;
    for (const auto& c : cases) {
        if (!c.osquery.isEmpty())
            fakeOsquery(c.osquery);
        server.setReply(CannedReply{c.status});
        manager->processCommand(QStringLiteral("192.0.2.1"), c.command.toUtf8(), AuditLog::Push);
        QJsonObject record{{"channel", "push"},
                           {"peer", "192.0.2.1"},
                           {"command", c.command},
                           {"task", c.command.section("#$#", 1, 1).toInt()},
                           {"outcome", c.outcome}};
        if (!c.delivered.isUndefined())
            record.insert("delivered", c.delivered);
        expected << record;
    }
    EXPECT_EQ(auditRecords(), expected);
}
