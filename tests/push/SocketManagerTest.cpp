#include "core/CLogger.h"
#include "core/Common.h"
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

TEST_F(SocketManagerTest, ReportCommandsReachTheDispatcherAndShortOnesAreLogged)
{
    manager->processCommand(QStringLiteral("127.0.0.1"), QStringLiteral("RPT#$#$0#$#0"));
    manager->processCommand(QStringLiteral("127.0.0.1"), QStringLiteral("RPT#$#x"));
    EXPECT_EQ(requestsTo("addMachineInfo").size(), 2);
    for (const char* ignored : {"rpt#$#0", "RPT", "RPT#$#25", "ACT#$#0#$#1|1|x", "RPT#$#-1", "ACT#$#4096#$#x"})
        manager->processCommand(QStringLiteral("127.0.0.1"), QString::fromLatin1(ignored));
    EXPECT_EQ(server.requests().size(), 2);
    EXPECT_TRUE(prefix.traceLog().contains("Ignored RPT command without a subject"));
    EXPECT_EQ(prefix.traceLog().count("command for unknown task"), 3); // 25, -1, 4096
}

TEST_F(SocketManagerTest, ConfigChangeDownloadsTheScheduleAndUpdateStartsTheScript)
{
    server.setReply({200, "<AgentInfo><Interval>7</Interval></AgentInfo>", "application/xml"});
    manager->processCommand(QString(), QStringLiteral("MOD#$#AGENT_CONFIG_CHANGE#$#ignored"));
    ASSERT_EQ(requestsTo("settings/getConfigFile").size(), 1);
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

TEST_F(SocketManagerTest, ActionCommandKillsAndPostsItsResult)
{
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::execlp("sleep", "sleep", "100", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    manager->processCommand(QString(), QStringLiteral("ACT#$#3#$#1|%1|req-42").arg(child));
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    const QList<RecordedRequest> results = requestsTo("settings/InvSettingsOutput");
    ASSERT_EQ(results.size(), 1);
    const QJsonObject result = QJsonDocument::fromJson(results.first().body).object();
    EXPECT_EQ(result.value(QStringLiteral("_id")).toString(), QStringLiteral("req-42"));
    EXPECT_EQ(result.value(QStringLiteral("status")).toInt(), 0);
    EXPECT_EQ(result.value(QStringLiteral("message")).toString(), QStringLiteral("Successfully Killed %s!"));

    // "ACT" strips no "$": a kill target of "$1" is no process id.
    manager->processCommand(QString(), QStringLiteral("ACT#$#3#$#1|$%1|req-43").arg(::getpid()));
    const QJsonObject refused =
        QJsonDocument::fromJson(requestsTo("settings/InvSettingsOutput").last().body).object();
    EXPECT_EQ(refused.value(QStringLiteral("status")).toInt(), 1);
}

TEST_F(SocketManagerTest, TraceLogResetAndItsFailure)
{
    EDR_LOG->Info("test", "something to delete");
    manager->processCommand(QString(), QStringLiteral("RESET#$#TRACE_LOG"));
    EXPECT_FALSE(prefix.traceLog().contains("something to delete"));
    EXPECT_TRUE(prefix.traceLog().contains("Successfully Deleted Trace Log!"));
    ASSERT_TRUE(QFile::remove(Common::getEdrDirPath() + QStringLiteral("/EDR_Track.log")));
    manager->processCommand(QString(), QStringLiteral("RESET#$#TRACE_LOG"));
    EXPECT_TRUE(prefix.traceLog().contains("Failed to Delete Trace Log!"));
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
