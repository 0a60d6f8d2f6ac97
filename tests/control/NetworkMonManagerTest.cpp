#include "control/NetworkMonManager.h"
#include "support/TestSupport.h"

#include <QElapsedTimer>
#include <QJsonDocument>

#include <gtest/gtest.h>

namespace {

using edrtest::FakeToolDir;

QJsonObject expectedBody(const QString& name)
{
    return QJsonDocument::fromJson(edrtest::readFixture(QStringLiteral("expected/network/") + name)).object();
}

QJsonObject obj(std::initializer_list<QPair<QString, QJsonValue>> pairs)
{
    return QJsonObject(pairs);
}

TEST(NetworkMonManagerTest, ReportFromCapturedLsofAndSs)
{
    FakeToolDir tools;
    tools.addToolFromFixture(QStringLiteral("lsof"), QStringLiteral("commands/lsof/sockets.stdout"));
    tools.addToolFromFixture(QStringLiteral("ss"), QStringLiteral("commands/ss/sockets.stdout"));
    NetworkMonManager manager(HostPaths::fromFixtureRoot(edrtest::fixturePath(QStringLiteral("roots/network"))),
                              tools.runner());
    QJsonObject body;
    ASSERT_TRUE(manager.collectReport(body));
    EXPECT_EQ(body, expectedBody(QStringLiteral("sockets.json")));
    const QList<QStringList> lsofRuns{{QStringLiteral("-P"), QStringLiteral("-n"), QStringLiteral("-i")}};
    const QList<QStringList> ssRuns{{QStringLiteral("-tulnpH")}};
    EXPECT_EQ(tools.invocations(QStringLiteral("lsof")), lsofRuns);
    EXPECT_EQ(tools.invocations(QStringLiteral("ss")), ssRuns);
}

TEST(NetworkMonManagerTest, LsofLinesOfEveryShape)
{
    const QByteArray output = "COMMAND PID USER FD TYPE DEVICE SIZE/OFF NODE NAME\n"
                              "nginx 77 root 6u IPv4 1 0t0 TCP *:80 (LISTEN)\n"
                              "curl 91 root 5u IPv6 2 0t0 TCP [fe80::1]:5123->[2001:db8::2]:443 (ESTABLISHED)\n"
                              "curl 92 root 5u IPv4 3 0t0 TCP 10.0.0.1:5124->10.0.0.2:443 (SYN_SENT)\n"
                              "odd 93 root 5u IPv4 3 0t0 TCP 10.0.0.1:5125 (CLOSE_WAIT)\n"
                              "short x\n"
                              "dropped because no line feed follows";
    QJsonArray listening, connections;
    NetworkMonManager::parseLsofOutput(output, listening, connections);
    const QJsonArray expectedListening{
        obj({{"FilePath", "nginx"}, {"LocalIP", "*"}, {"LocalPort", 80}, {"PID", 77}, {"ProcessName", "nginx"},
             {"Protocol", "TCP"}, {"State", 2}}),
        // Missing columns are empty texts: an empty state word means listening.
        obj({{"FilePath", "short"}, {"LocalIP", ""}, {"LocalPort", 0}, {"PID", 0}, {"ProcessName", "short"},
             {"Protocol", ""}, {"State", 2}}),
    };
    const QJsonArray expectedConnections{
        obj({{"FilePath", "curl"}, {"LocalIP", "[fe80::1]"}, {"LocalPort", 5123}, {"PID", 91},
             {"ProcessName", "curl"}, {"Protocol", "TCP"}, {"RemoteIP", "[2001:db8::2]"}, {"RemotePort", 443},
             {"State", 5}}),
        obj({{"FilePath", "curl"}, {"LocalIP", "10.0.0.1"}, {"LocalPort", 5124}, {"PID", 92},
             {"ProcessName", "curl"}, {"Protocol", "TCP"}, {"RemoteIP", "10.0.0.2"}, {"RemotePort", 443},
             {"State", 1}}),
        obj({{"FilePath", "odd"}, {"LocalIP", "10.0.0.1"}, {"LocalPort", 5125}, {"PID", 93}, {"ProcessName", "odd"},
             {"Protocol", "TCP"}, {"RemoteIP", ""}, {"RemotePort", 0}, {"State", 8}}),
    };
    EXPECT_EQ(listening, expectedListening);
    EXPECT_EQ(connections, expectedConnections);

    // Nothing at all, or only a header: no records and no crash.
    for (const QByteArray& empty : {QByteArray(), QByteArray("\n"), QByteArray("COMMAND PID\n")}) {
        QJsonArray l, c;
        NetworkMonManager::parseLsofOutput(empty, l, c);
        EXPECT_TRUE(l.isEmpty() && c.isEmpty());
    }
}

TEST(NetworkMonManagerTest, SsProcessPartIsReadFromColumnFiveOnlyWhenThere)
{
    const QByteArray output = "tcp LISTEN 0 128 0.0.0.0:22 0.0.0.0:* users:((\"sshd\",pid=640,fd=3))\n"
                              "tcp LISTEN 0 128 10.0.0.5:80 users:((\"nginx\",pid=77,fd=6))\n"
                              "udp UNCONN 0 0 [::]:53 (nameonly))\n"
                              "tcp ESTAB 0 0 1.2.3.4:5\n"
                              "\n";
    QList<int> asked;
    QJsonArray listening;
    NetworkMonManager::parseSsOutput(output, listening, [&](int pid) {
        asked << pid;
        return QStringLiteral("/usr/sbin/nginx");
    });
    const QJsonArray expected{
        obj({{"LocalIP", "0.0.0.0"}, {"LocalPort", 22}, {"Protocol", "tcp"}, {"RemoteIP", "0.0.0.0"},
             {"RemotePort", 0}, {"State", 2}}),
        obj({{"FilePath", "/usr/sbin/nginx"}, {"LocalIP", "10.0.0.5"}, {"LocalPort", 80}, {"PID", 77},
             {"ProcessName", "\"nginx\""}, {"Protocol", "tcp"}, {"RemoteIP", "users"},
             {"RemotePort", 0}, {"State", 2}}),
        obj({{"LocalIP", "[::]"}, {"LocalPort", 53}, {"Protocol", "udp"}, {"RemoteIP", "(nameonly))"},
             {"RemotePort", 0}, {"State", 2}}),
        obj({{"LocalIP", "1.2.3.4"}, {"LocalPort", 5}, {"Protocol", "tcp"}, {"RemoteIP", ""}, {"RemotePort", 0}}),
    };
    EXPECT_EQ(listening, expected);
    EXPECT_EQ(asked, QList<int>{77});
}

TEST(NetworkMonManagerTest, StateTablesKeepTheirAsymmetries)
{
    const QPair<QString, int> words[] = {{QString(), 2},
                                         {QStringLiteral("(LISTEN)"), 2},
                                         {QStringLiteral("(ESTABLISHED)"), 5},
                                         {QStringLiteral("(CLOSE_WAIT)"), 8},
                                         {QStringLiteral("(TIME_WAIT)"), 11},
                                         {QStringLiteral("(listen)"), 1},
                                         {QStringLiteral("LISTEN"), 1},
                                         {QStringLiteral("(SYN_SENT)"), 1}};
    for (const auto& w : words)
        EXPECT_EQ(NetworkMonManager::getState(w.first), w.second) << qPrintable(w.first);
    const int kernel[] = {5, 3, 4, 6, 7, 11, 1, 8, 10, 2, 9, 12};
    for (int i = 0; i < 12; ++i)
        EXPECT_EQ(NetworkMonManager::getState(i), kernel[i]) << i;
    EXPECT_EQ(NetworkMonManager::getState(12), 12);
    EXPECT_EQ(NetworkMonManager::getState(-3), -3);
}

TEST(NetworkMonManagerTest, KernelAddressDecoding)
{
    EXPECT_EQ(NetworkMonManager::hexToIPv4(QStringLiteral("0100007F")), QStringLiteral("127.0.0.1"));
    EXPECT_EQ(NetworkMonManager::hexToIPv4(QStringLiteral("0501A8C0")), QStringLiteral("192.168.1.5"));
    EXPECT_EQ(NetworkMonManager::hexToIPv4(QStringLiteral("00000000")), QStringLiteral("0.0.0.0"));
    EXPECT_EQ(NetworkMonManager::hexToIPv4(QStringLiteral("zz")), QString());
    EXPECT_EQ(NetworkMonManager::hexToIPv6(QStringLiteral("00000000000000000000000000000000")), QStringLiteral("::"));
    // Groups stay in the order they stand: the kernel's ::1 reads like this.
    EXPECT_EQ(NetworkMonManager::hexToIPv6(QStringLiteral("00000000000000000000000001000000")),
              QStringLiteral("0000:0000:0000:0000:0000:0000:0100:0000"));
    EXPECT_EQ(NetworkMonManager::hexToIPv6(QStringLiteral("ABCD")), QStringLiteral("ABCD:::::::"));
    EXPECT_TRUE(NetworkMonManager::isNumeric(QStringLiteral("8853")));
    EXPECT_FALSE(NetworkMonManager::isNumeric(QStringLiteral("self")));
}

TEST(NetworkMonManagerTest, ProcWayReadsKernelTables)
{
    NetworkMonManager manager(HostPaths::fromFixtureRoot(edrtest::fixturePath(QStringLiteral("roots/network"))),
                              ToolRunner(QStringList()));
    QJsonObject body;
    ASSERT_TRUE(manager.getUsedPortList(body));
    const QJsonArray listening = body.value(QStringLiteral("ListeningPorts")).toArray();
    const QJsonArray connections = body.value(QStringLiteral("TCPConnections")).toArray();
    auto find = [](const QJsonArray& list, const QString& protocol, int port) {
        for (const QJsonValue& v : list)
            if (v[QStringLiteral("Protocol")] == protocol && v[QStringLiteral("LocalPort")].toInt() == port)
                return v.toObject();
        return QJsonObject();
    };
    const QJsonObject common{{QStringLiteral("PID"), 8853},
                             {QStringLiteral("ProcessName"), QStringLiteral("python3\n")},
                             {QStringLiteral("FilePath"),
                              QStringLiteral("/root/.pyenv/versions/3.11.7/bin/python3.11")}};
    QJsonObject tcp = common;
    tcp.insert(QStringLiteral("Protocol"), QStringLiteral("TCP"));
    tcp.insert(QStringLiteral("LocalIP"), QStringLiteral("127.0.0.1"));
    tcp.insert(QStringLiteral("LocalPort"), 45671);
    tcp.insert(QStringLiteral("State"), 9); // the kernel's LISTEN (10) in our numbering
    EXPECT_EQ(find(listening, QStringLiteral("TCP"), 45671), tcp);
    QJsonObject udp6 = common;
    udp6.insert(QStringLiteral("Protocol"), QStringLiteral("UPD6"));
    udp6.insert(QStringLiteral("LocalIP"), QStringLiteral("::"));
    udp6.insert(QStringLiteral("LocalPort"), 45674);
    udp6.insert(QStringLiteral("State"), 8);
    EXPECT_EQ(find(listening, QStringLiteral("UPD6"), 45674), udp6);
    EXPECT_FALSE(find(listening, QStringLiteral("UPD"), 45673).isEmpty());
    QJsonObject v6 = common;
    v6.insert(QStringLiteral("Protocol"), QStringLiteral("TCP6"));
    v6.insert(QStringLiteral("LocalIP"), QStringLiteral("0000:0000:0000:0000:0000:0000:0100:0000"));
    v6.insert(QStringLiteral("LocalPort"), 60604);
    v6.insert(QStringLiteral("RemoteIP"), QStringLiteral("0000:0000:0000:0000:0000:0000:0100:0000"));
    v6.insert(QStringLiteral("RemotePort"), 45672);
    v6.insert(QStringLiteral("State"), 3); // ESTABLISHED (1)
    EXPECT_EQ(find(connections, QStringLiteral("TCP6"), 60604), v6);
    // Truncated and garbled tables lose only their broken lines.
    QJsonArray l, c;
    NetworkMonManager::parseConnectionTable("  sl local\n   0: 0100007F:B267 00000000:0000 0A\n   1: zz\n   2:", 1,
                                            QStringLiteral("TCP"), QString(), QString(), l, c);
    EXPECT_EQ(l.size(), 1);
    EXPECT_TRUE(c.isEmpty());
}

TEST(NetworkMonManagerTest, MissingOrHangingToolsGiveEmptyLists)
{
    FakeToolDir missing;
    NetworkMonManager none(HostPaths(), missing.runner());
    QJsonObject body;
    EXPECT_TRUE(none.collectReport(body));
    EXPECT_TRUE(body.isEmpty());

    FakeToolDir hanging;
    hanging.addHangingTool(QStringLiteral("lsof"));
    hanging.addToolFromFixture(QStringLiteral("ss"), QStringLiteral("commands/ss/sockets.stdout"));
    NetworkMonManager stuck(HostPaths(), hanging.runner());
    stuck.setToolTimeoutMs(300);
    QElapsedTimer clock;
    clock.start();
    QJsonObject partial;
    EXPECT_TRUE(stuck.collectReport(partial));
    EXPECT_LT(clock.elapsed(), 20000);
    EXPECT_EQ(partial.keys(), QStringList{QStringLiteral("ListeningPorts")});
    EXPECT_EQ(partial.value(QStringLiteral("ListeningPorts")).toArray().size(), 5);
}

TEST(NetworkMonManagerTest, ReportIsPostedEvenWhenEmpty)
{
    edrtest::ScratchPrefix prefix;
    edrtest::FakeHttpServer server;
    prefix.pointAtServer(server.port());
    FakeToolDir missing;
    NetworkMonManager manager(HostPaths(), missing.runner());
    EXPECT_TRUE(manager.sendRptToServer(QString()));
    ASSERT_EQ(server.requests().size(), 1);
    EXPECT_EQ(server.requests().first().target, QByteArray("/api/v1/machineInfo/addNwMonitoring"));
    EXPECT_EQ(QJsonDocument::fromJson(server.requests().first().body).object(), QJsonObject());
    EXPECT_TRUE(prefix.traceLog().contains("Successfully send Network Ports to server."));
}

} // namespace
