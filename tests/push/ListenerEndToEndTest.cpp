// The built agent's listener against two users of this machine: a terminal
// order from nobody is never run, the same order from root is.

#include "NobodyChild.h"
#include "support/AgentProcess.h"
#include "support/ConsoleProcess.h"
#include "support/TestSupport.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

using namespace edrtest;

TEST(ListenerEndToEnd, TerminalOrderRunsForRootOnlyAmongLocalUsers)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "the daemon runs as root only";
    ConsoleProcess console;
    ASSERT_TRUE(console.isRunning());
    AgentProcess agent;
    const int listenPort = LoopbackSocket::freePort();
    agent.writeServerIni(console.httpPort(), console.socketPort(), listenPort);
    ASSERT_TRUE(agent.start());
    ASSERT_TRUE(console.waitForRequests(QStringLiteral("machineInfo/addMachineInfo"), 1, 30000))
        << agent.log().constData();

    QTemporaryDir markers;
    const QByteArray nobodyMarker = QFile::encodeName(markers.path()) + "/by-nobody";
    const QByteArray rootMarker = QFile::encodeName(markers.path()) + "/by-root";
    const QByteArray nobodyOrder = "RPT#$#18#$#1|sh -c \"id > " + nobodyMarker + "\"";
    const QByteArray rootOrder = "RPT#$#18#$#2|sh -c \"id > " + rootMarker + "\"";

    // Nobody first (retried until the listener is up): no answer, nothing read.
    int replyBytes = 101;
    ASSERT_TRUE(waitUntil(
        [&] { return (replyBytes = NobodyChild::sendToLoopback(listenPort, nobodyOrder)) != 101; }, 30000));
    EXPECT_EQ(replyBytes, 0);
    EXPECT_TRUE(agent.waitForLog(
        "Refused command connection from 127.0.0.1: a local user other than root (nobody)", 10000))
        << agent.log().constData();

    // Root next: served, and its order runs. Orders run in arrival order, so
    // nobody's would have run by then.
    LoopbackSocket client(LoopbackSocket::connectTo(listenPort, 10000));
    ::send(client.fd, rootOrder.constData(), static_cast<size_t>(rootOrder.size()), MSG_NOSIGNAL);
    EXPECT_EQ(LoopbackSocket::readSome(client.fd, 10000), QByteArray("OK"));
    ASSERT_TRUE(waitUntil([&] { return QFile(QFile::decodeName(rootMarker)).size() > 0; }, 30000))
        << agent.log().constData();
    EXPECT_TRUE(HostPaths::readFile(QFile::decodeName(rootMarker)).startsWith("uid=0(root)"));
    EXPECT_FALSE(QFile::exists(QFile::decodeName(nobodyMarker)));
    EXPECT_FALSE(agent.log().contains(nobodyMarker));

    const QByteArray audit = HostPaths::readFile(agent.dataDir() + QStringLiteral("/audit.log"));
    EXPECT_EQ(audit.count(R"("channel":"listener","command":"","count":1,"peer":"127.0.0.1")"), 1)
        << audit.constData();
    EXPECT_EQ(audit.count(R"("outcome":"refused-peer")"), 1) << audit.constData();
    EXPECT_TRUE(audit.contains(rootMarker)) << audit.constData();
}
