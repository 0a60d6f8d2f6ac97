#include "core/CLogger.h"
#include "core/Common.h"
#include "core/EdrAgentConfig.h"
#include "push/SocketManager.h"
#include "schedule/ScheduleManager.h"

#include "support/TestSupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

#include <iterator>

#include <csignal>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace edrtest;

namespace {
class SocketManagerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        prefix.pointAtServer(server.port());
        // Fresh managers: the schedule manager keeps the file path of the
        // prefix it was created under.
        SocketManager::releaseInstance();
        ScheduleManager::releaseInstance();
        manager = SocketManager::getInstance();
    }
    QList<RecordedRequest> requestsTo(const QByteArray& route) const
    {
        QList<RecordedRequest> out;
        for (const RecordedRequest& r : server.requests())
            if (r.target.contains(route))
                out << r;
        return out;
    }
    FakeHttpServer server;
    ScratchPrefix prefix;
    SocketManager* manager = nullptr;
};
} // namespace

TEST_F(SocketManagerTest, DispatchesReportsConfigChangeAndUpdate)
{
    manager->processCommand(QStringLiteral("127.0.0.1"), QStringLiteral("RPT#$#$0#$#0"));
    manager->processCommand(QStringLiteral("127.0.0.1"), QStringLiteral("RPT#$#x"));
    EXPECT_EQ(requestsTo("addMachineInfo").size(), 2);
    for (const char* ignored : {"rpt#$#0", "RPT", "RPT#$#25", "ACT#$#0#$#1|1|x", "RPT#$#-1", "ACT#$#4096#$#x"})
        manager->processCommand(QStringLiteral("127.0.0.1"), QString::fromLatin1(ignored));
    EXPECT_EQ(server.requests().size(), 2);
    EXPECT_TRUE(prefix.traceLog().contains("Ignored RPT command without a subject"));
    EXPECT_EQ(prefix.traceLog().count("command for unknown task"), 3); // 25, -1, 4096

    // A configuration change downloads the schedule; an update starts the script.
    server.setReply({200, "<AgentInfo><Interval>7</Interval></AgentInfo>", "application/xml"});
    manager->processCommand(QString(), QStringLiteral("MOD#$#AGENT_CONFIG_CHANGE#$#ignored"));
    ASSERT_EQ(requestsTo("settings/getConfigFile").size(), 1);
    EXPECT_EQ(server.requests().size(), 3);
    EXPECT_TRUE(prefix.traceLog().contains("Successfully Downloaded Updated Agent Config!"));

    const QString marker = prefix.path() + QStringLiteral("/updater-ran");
    QFile script(Common::getRootPath() + QStringLiteral("/edragentupd.sh"));
    ASSERT_TRUE(script.open(QIODevice::WriteOnly));
    script.write("touch '" + QFile::encodeName(marker) + "'\n");
    script.close();
    manager->processCommand(QString(), QStringLiteral("UPD#$#AGENT"));
    EXPECT_TRUE(prefix.traceLog().contains("Successfully Started Agent Updater!"));
    QElapsedTimer clock;
    clock.start();
    while (!QFile::exists(marker) && clock.elapsed() < 10000)
        QThread::msleep(20);
    EXPECT_TRUE(QFile::exists(marker));
}

TEST_F(SocketManagerTest, ReconnectPauseLeavesTheEventLoopRunning)
{
    TimeScale scale(0.05); // the 10 s pause becomes 500 ms
    QElapsedTimer clock;
    clock.start();
    manager->onSocketServerThreadFinished();
    EXPECT_LT(clock.elapsed(), 100); // returns at once: the pause is a timer
    int ticks = 0;
    QTimer other;
    QObject::connect(&other, &QTimer::timeout, [&] { ++ticks; });
    other.start(50);
    while (!prefix.traceLog().contains("Connecting to Lan server...") && clock.elapsed() < 5000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    EXPECT_TRUE(prefix.traceLog().contains("Lan Server Socket Closed! Sleeping for 10 seconds."));
    EXPECT_TRUE(prefix.traceLog().contains("Connecting to Lan server..."));
    EXPECT_GE(clock.elapsed(), 400);
    EXPECT_GE(ticks, 5); // other timers kept firing during the pause
    manager->disconnectFromServer();
}

TEST(SocketManagerSend, SendsRawTextCutToItsBuffer)
{
    ScratchPrefix prefix;
    int listenPort = 0;
    LoopbackSocket listener(LoopbackSocket::listenOn(&listenPort));
    const quint64 port = static_cast<quint64>(listenPort);
    SocketManager* manager = SocketManager::getInstance();
    EXPECT_FALSE(manager->sendMessageTo(QString(), QStringLiteral("x"), 1, false));
    EXPECT_TRUE(prefix.traceLog().contains("Ip Address Not Found!"));
    EXPECT_FALSE(manager->sendMessageTo(QStringLiteral("127.0.0.1"), QStringLiteral("x"), 1, false));
    EXPECT_TRUE(prefix.traceLog().contains("IP Server is unreachable! IP: 127.0.0.1"));
    EXPECT_FALSE(manager->sendMessageTo(QStringLiteral("127.0.0.1"), QStringLiteral("x"), port, true));

    EXPECT_TRUE(manager->sendMessageTo(QStringLiteral("127.0.0.1"), QString(5000, QLatin1Char('a')), port, false));
    EXPECT_TRUE(prefix.traceLog().contains(QByteArray("Message send to 127.0.0.1:") + QByteArray::number(port)));
    LoopbackSocket peer(LoopbackSocket::acceptOne(listener.fd, 5000));
    QByteArray received, chunk;
    while (!(chunk = LoopbackSocket::readSome(peer.fd, 2000)).isEmpty())
        received += chunk;
    EXPECT_EQ(received, QByteArray(4095, 'a')); // the text and its terminator fit 4096 bytes
}

// Orders the policy refuses run nothing and post a failure; once allowed
// (the policy is read at every order) they run. Every command is audited.
TEST_F(SocketManagerTest, PolicyGovernsOrdersAndEveryCommandIsAudited)
{
    EdrAgentConfig config;
    config.setSetting(QStringLiteral("Policy/Kill"), QStringLiteral(" DENY "));
    config.setSetting(QStringLiteral("Policy/Update"), QStringLiteral("Deny"));
    config.setSetting(QStringLiteral("Policy/TraceLogReset"), QStringLiteral("deny"));
    config.setSetting(QStringLiteral("Policy/Terminal"), QStringLiteral("maybe"));
    // The report's line must already be in the file while the report is posted.
    QByteArray auditSeenByServer;
    server.setHandler([&](const RecordedRequest&) {
        QFile audit(Common::getEdrDirPath() + QStringLiteral("/audit.log"));
        if (audit.open(QIODevice::ReadOnly))
            auditSeenByServer = audit.readAll();
        return CannedReply();
    });

    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::execlp("sleep", "sleep", "100", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    EDR_LOG->Info("test", "kept by the refused reset");
    const QString kill = QStringLiteral("ACT#$#3#$#1|%1|req-1").arg(child);
    manager->processCommand(QStringLiteral("192.0.2.1"), kill, AuditLog::Push);
    manager->processCommand(QStringLiteral("127.0.0.1"), QStringLiteral("UPD#$#AGENT"));
    manager->processCommand(QStringLiteral("127.0.0.1"), QStringLiteral("RESET#$#TRACE_LOG"));
    manager->processCommand(QStringLiteral("127.0.0.1"), QStringLiteral("RPT#$#18#$#t1|ls"));
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, WNOHANG), 0);

    const QByteArray log = prefix.traceLog();
    EXPECT_TRUE(log.contains("kept by the refused reset"));
    EXPECT_FALSE(log.contains("Agent Updater!"));
    for (const char* key : {"Kill", "Update", "TraceLogReset", "Terminal"})
        EXPECT_TRUE(log.contains(QByteArray("refused: policy ") + key + " does not allow it")) << key;
    EXPECT_TRUE(log.contains("Policy Terminal has the unknown value 'maybe'; treated as deny"));
    EXPECT_EQ(log.count("has the unknown value"), 1); // " DENY " and "Deny" are known
    ASSERT_EQ(server.requests().size(), 2);
    EXPECT_EQ(QJsonDocument::fromJson(server.requests().at(0).body).object(),
              QJsonObject({{"_id", "req-1"}, {"status", 1}, {"message", "Failed to Kill %s!"}}));
    EXPECT_EQ(QJsonDocument::fromJson(server.requests().at(1).body).object(),
              QJsonObject({{"_id", "t1"}, {"cmd", "ls"}, {"status", 1}, {"Error", 0}}));

    config.setSetting(QStringLiteral("Policy/Kill"), QStringLiteral("Allow"));
    config.setSetting(QStringLiteral("Policy/TraceLogReset"), QStringLiteral("allow"));
    const QString kill2 = QStringLiteral("ACT#$#3#$#1|%1|req-2").arg(child);
    manager->processCommand(QStringLiteral("192.0.2.1"), kill2, AuditLog::Push);
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(QJsonDocument::fromJson(server.requests().last().body).object(),
              QJsonObject({{"_id", "req-2"}, {"status", 0}, {"message", "Successfully Killed %s!"}}));
    // "ACT" strips no "$": a kill target of "$1" is no process id.
    const QString kill3 = QStringLiteral("ACT#$#3#$#1|$%1|req-3").arg(::getpid());
    manager->processCommand(QStringLiteral("127.0.0.1"), kill3);
    EXPECT_EQ(QJsonDocument::fromJson(server.requests().last().body).object().value("status").toInt(), 1);
    manager->processCommand(QStringLiteral("10.0.0.5"), QStringLiteral("RPT#$#$0#$#0"), AuditLog::Push);
    EXPECT_TRUE(auditSeenByServer.endsWith("\"outcome\":\"pending\"     }\n")) << auditSeenByServer.constData();
    manager->processCommand(QStringLiteral("10.0.0.5"), QStringLiteral("keep-alive"), AuditLog::Push);
    for (const char* command : {"RPT", "hello", "RPT#$#5", "RESET#$#TRACE_LOG"})
        manager->processCommand(QStringLiteral("127.0.0.1"), QString::fromLatin1(command));
    // The reset cleared the trace log; the audit log outlives it. A trace log
    // that cannot be deleted fails the reset.
    EXPECT_FALSE(prefix.traceLog().contains("kept by the refused reset"));
    EXPECT_TRUE(prefix.traceLog().contains("Successfully Deleted Trace Log!"));
    ASSERT_TRUE(QFile::remove(Common::getEdrDirPath() + QStringLiteral("/EDR_Track.log")));
    manager->processCommand(QStringLiteral("127.0.0.1"), QStringLiteral("RESET#$#TRACE_LOG"));
    EXPECT_TRUE(prefix.traceLog().contains("Failed to Delete Trace Log!"));

    const struct {
        const char* channel;
        const char* peer;
        QString command;
        QJsonValue task;
        const char* outcome;
    } expected[] = {
        {"push", "192.0.2.1", kill, 3, "denied"},
        {"listener", "127.0.0.1", QStringLiteral("UPD#$#AGENT"), QJsonValue::Null, "denied"},
        {"listener", "127.0.0.1", QStringLiteral("RESET#$#TRACE_LOG"), QJsonValue::Null, "denied"},
        {"listener", "127.0.0.1", QStringLiteral("RPT#$#18#$#t1|ls"), 18, "denied"},
        {"push", "192.0.2.1", kill2, 3, "done"},
        {"listener", "127.0.0.1", kill3, 3, "done"}, // its failure was reported
        {"push", "10.0.0.5", QStringLiteral("RPT#$#$0#$#0"), 0, "done"},
        {"listener", "127.0.0.1", QStringLiteral("RPT"), QJsonValue::Null, "malformed"},
        {"listener", "127.0.0.1", QStringLiteral("hello"), QJsonValue::Null, "malformed"},
        {"listener", "127.0.0.1", QStringLiteral("RPT#$#5"), 5, "failed"},
        {"listener", "127.0.0.1", QStringLiteral("RESET#$#TRACE_LOG"), QJsonValue::Null, "done"},
        {"listener", "127.0.0.1", QStringLiteral("RESET#$#TRACE_LOG"), QJsonValue::Null, "failed"},
    };
    QFile file(Common::getEdrDirPath() + QStringLiteral("/audit.log"));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QList<QByteArray> records = file.readAll().trimmed().split('\n');
    ASSERT_EQ(records.size(), static_cast<int>(std::size(expected)));
    for (int i = 0; i < records.size(); ++i) {
        const auto& e = expected[i];
        const QJsonObject record = QJsonDocument::fromJson(records[i]).object();
        const QJsonObject want{{"channel", e.channel}, {"peer", e.peer}, {"command", e.command},
                               {"task", e.task},       {"outcome", e.outcome}, {"time", record["time"]}};
        EXPECT_EQ(record, want) << records[i].constData();
    }
}
