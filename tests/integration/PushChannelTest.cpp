// End to end: commands reach the running agent over both channels.

#include "core/EdrAgentConfig.h"
#include "support/AgentProcess.h"
#include "support/ConsoleProcess.h"
#include "support/TestSupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

using namespace edrtest;

namespace {
// Sends one command to the local listener; returns what came back.
QByteArray sendToListener(int port, const QByteArray& command)
{
    LoopbackSocket client(LoopbackSocket::connectTo(port, 10000));
    ::send(client.fd, command.constData(), static_cast<size_t>(command.size()), MSG_NOSIGNAL);
    return LoopbackSocket::readSome(client.fd, 10000);
}

class PushChannel : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (::getuid() != 0)
            GTEST_SKIP() << "the daemon runs as root only";
        ASSERT_TRUE(console.isRunning());
        listenPort = LoopbackSocket::freePort();
        agent.writeServerIni(console.httpPort(), console.socketPort(), listenPort);
        ASSERT_TRUE(agent.start());
        ASSERT_TRUE(agent.waitForLog("Connected to server socket.", 30000)) << agent.log().constData();
    }
    void TearDown() override
    {
        agent.signal(SIGTERM);
        agent.waitForExit(10000);
    }
    bool waitForConnections(int count, int timeoutMs)
    {
        QElapsedTimer clock;
        clock.start();
        while (clock.elapsed() < timeoutMs) {
            if (console.connections().size() >= count)
                return true;
            QThread::msleep(50);
        }
        return false;
    }
    ConsoleProcess console;
    AgentProcess agent;
    int listenPort = 0;
};
} // namespace

TEST_F(PushChannel, HandshakeAndKeepAliveOnTheServerConnection)
{
    ASSERT_TRUE(waitForConnections(1, 10000));
    const QJsonObject first = console.connections().at(0).toObject();
    const QString handshake = first.value(QStringLiteral("handshake")).toString();
    const QString token = EdrAgentConfig(agent.dataDir() + QStringLiteral("/agent.conf")).getAuthCode();
    EXPECT_TRUE(handshake.startsWith(QStringLiteral("Connect#$#$"))) << qPrintable(handshake);
    EXPECT_TRUE(handshake.endsWith(QStringLiteral("#$#$") + token)) << qPrintable(handshake);

    ASSERT_EQ(console.push("RPT#$#$0#$#0"), 1);
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addMachineInfo"), 2, 20000));
    // The command reaches the audit log marked as from the server connection.
    QFile audit(agent.dataDir() + QStringLiteral("/audit.log"));
    QElapsedTimer wait;
    wait.start();
    while (!audit.exists() && wait.elapsed() < 10000)
        QThread::msleep(20);
    ASSERT_TRUE(audit.open(QIODevice::ReadOnly));
    EXPECT_TRUE(audit.readAll().startsWith(R"({"channel":"push","command":"RPT#$#$0#$#0","peer":"127.0.0.1","task":0,)"));
    // Keep-alive after the message and after (scaled) silence.
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 10000 &&
           console.connections().at(0).toObject().value(QStringLiteral("keep_alives")).toInt() < 3)
        QThread::msleep(50);
    EXPECT_GE(console.connections().at(0).toObject().value(QStringLiteral("keep_alives")).toInt(), 3);
}

TEST_F(PushChannel, ReconnectsAfterTheServerCloses)
{
    ASSERT_TRUE(waitForConnections(1, 10000));
    console.admin("POST", "/admin/close-connections");
    ASSERT_TRUE(agent.waitForLog("Lan Server Socket Closed! Sleeping for 10 seconds.", 20000));
    ASSERT_TRUE(waitForConnections(2, 20000));
    EXPECT_TRUE(console.connections().at(1).toObject().value(QStringLiteral("open")).toBool());
}

TEST_F(PushChannel, ListenerCommandsAndGarbage)
{
    ASSERT_TRUE(QFile::exists(agent.logPath()));
    EXPECT_EQ(sendToListener(listenPort, QByteArray(5000, '\x01')), QByteArray("OK"));
    EXPECT_EQ(sendToListener(listenPort, "rpt#$#0"), QByteArray("OK"));
    EXPECT_EQ(sendToListener(listenPort, "RPT"), QByteArray("OK"));
    EXPECT_EQ(sendToListener(listenPort, "RPT#$#x"), QByteArray("OK"));
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addMachineInfo"), 2, 20000));
    EXPECT_TRUE(agent.waitForLog("Ignored RPT command without a subject", 10000));

    EXPECT_EQ(sendToListener(listenPort, "RESET#$#TRACE_LOG"), QByteArray("OK"));
    EXPECT_TRUE(agent.waitForLog("Successfully Deleted Trace Log!", 10000));
    // The log was deleted and started afresh: earlier lines are gone.
    EXPECT_FALSE(agent.log().contains("Connected to server socket."));
    EXPECT_FALSE(agent.log().contains("Recieved From Socket: RPT#$#x"));
}

TEST_F(PushChannel, RestartedAgentBindsItsPortAtOnce)
{
    EXPECT_EQ(sendToListener(listenPort, "MOD#$#SOMETHING_ELSE"), QByteArray("OK"));
    agent.signal(SIGTERM);
    ASSERT_TRUE(agent.waitForExit(10000));
    EXPECT_EQ(agent.exitCode(), 0);
    ASSERT_TRUE(agent.start());
    ASSERT_TRUE(agent.waitForLog("Connected to server socket.", 30000, 2));
    EXPECT_EQ(sendToListener(listenPort, "MOD#$#AGENT_CONFIG_CHANGE"), QByteArray("OK"));
    EXPECT_TRUE(agent.waitForLog("Agent Config!", 20000));
    EXPECT_FALSE(agent.log().contains("bind Failed!"));
}

TEST_F(PushChannel, TerminalOrderAtItsLimitLeavesNoGrandchild)
{
    EXPECT_EQ(sendToListener(listenPort, "RPT#$#18#$#31|bash -c \"sleep 999.3125; true\""), QByteArray("OK"));
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("cmdAndPS/cmdOutput"), 1, 20000)) << agent.log().constData();
    const QJsonObject body =
        console.requests(QStringLiteral("cmdAndPS/cmdOutput")).at(0).value(QStringLiteral("body")).toObject();
    EXPECT_EQ(body.value(QStringLiteral("status")).toInt(), 1); // killed at the limit
    EXPECT_EQ(livingProcesses("sleep 999.3125"), 0);
}

TEST(PushChannelShutdown, StopDuringATerminalOrderEndsItsProcessGroup)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    ConsoleProcess console;
    ASSERT_TRUE(console.isRunning());
    AgentProcess agent;
    agent.setEnv(QStringLiteral("EDR_AGENT_TIME_SCALE"), QStringLiteral("1")); // a 20 s limit
    const int listenPort = LoopbackSocket::freePort();
    agent.writeServerIni(console.httpPort(), console.socketPort(), listenPort);
    ASSERT_TRUE(agent.start());
    const QByteArray marker = "sleep 999." + QByteArray::number(::getpid()); // unique to this run
    EXPECT_EQ(sendToListener(listenPort, "RPT#$#18#$#41|bash -c \"" + marker + "; true\""), QByteArray("OK"));
    QElapsedTimer clock;
    clock.start();
    while (livingProcesses(marker) < 2 && clock.elapsed() < 20000) // bash and its sleep
        QThread::msleep(20);
    ASSERT_EQ(livingProcesses(marker), 2);
    agent.signal(SIGTERM);
    ASSERT_TRUE(agent.waitForExit(15000));
    EXPECT_EQ(livingProcesses(marker), 0);
}
