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
        QJsonObject({{"FilePath", "nginx"}, {"LocalIP", "*"}, {"LocalPort", 80}, {"PID", 77}, {"ProcessName", "nginx"},
             {"Protocol", "TCP"}, {"State", 2}}),
        // Missing columns are empty texts: an empty state word means listening.
        QJsonObject({{"FilePath", "short"}, {"LocalIP", ""}, {"LocalPort", 0}, {"PID", 0}, {"ProcessName", "short"},
             {"Protocol", ""}, {"State", 2}}),
    };
    const QJsonArray expectedConnections{
        QJsonObject({{"FilePath", "curl"}, {"LocalIP", "[fe80::1]"}, {"LocalPort", 5123}, {"PID", 91},
             {"ProcessName", "curl"}, {"Protocol", "TCP"}, {"RemoteIP", "[2001:db8::2]"}, {"RemotePort", 443},
             {"State", 5}}),
        QJsonObject({{"FilePath", "curl"}, {"LocalIP", "10.0.0.1"}, {"LocalPort", 5124}, {"PID", 92},
             {"ProcessName", "curl"}, {"Protocol", "TCP"}, {"RemoteIP", "10.0.0.2"}, {"RemotePort", 443},
             {"State", 1}}),
        QJsonObject({{"FilePath", "odd"}, {"LocalIP", "10.0.0.1"}, {"LocalPort", 5125}, {"PID", 93}, {"ProcessName", "odd"},
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
        QJsonObject({{"LocalIP", "0.0.0.0"}, {"LocalPort", 22}, {"Protocol", "tcp"}, {"RemoteIP", "0.0.0.0"},
             {"RemotePort", 0}, {"State", 2}}),
        QJsonObject({{"FilePath", "/usr/sbin/nginx"}, {"LocalIP", "10.0.0.5"}, {"LocalPort", 80}, {"PID", 77},
             {"ProcessName", "\"nginx\""}, {"Protocol", "tcp"}, {"RemoteIP", "users"},
             {"RemotePort", 0}, {"State", 2}}),
        QJsonObject({{"LocalIP", "[::]"}, {"LocalPort", 53}, {"Protocol", "udp"}, {"RemoteIP", "(nameonly))"},
             {"RemotePort", 0}, {"State", 2}}),
        QJsonObject({{"LocalIP", "1.2.3.4"}, {"LocalPort", 5}, {"Protocol", "tcp"}, {"RemoteIP", ""}, {"RemotePort", 0}}),
    };
    EXPECT_EQ(listening, expected);
    EXPECT_EQ(asked, QList<int>{77});
}

TEST(NetworkMonManagerTest, StateTablesAndAddressDecoding)
{
    const QPair<QString, int> words[] = {{"", 2},          {"(LISTEN)", 2}, {"(ESTABLISHED)", 5}, {"(CLOSE_WAIT)", 8},
                                         {"(TIME_WAIT)", 11}, {"(listen)", 1}, {"LISTEN", 1},         {"(SYN_SENT)", 1}};
    for (const auto& w : words)
        EXPECT_EQ(NetworkMonManager::getState(w.first), w.second) << qPrintable(w.first);
    const int kernel[] = {5, 3, 4, 6, 7, 11, 1, 8, 10, 2, 9, 12};
    for (int i = 0; i < 12; ++i)
        EXPECT_EQ(NetworkMonManager::getState(i), kernel[i]) << i;
    EXPECT_EQ(NetworkMonManager::getState(12), 12);
    EXPECT_EQ(NetworkMonManager::getState(-3), -3);

    EXPECT_EQ(NetworkMonManager::hexToIPv4("0100007F"), "127.0.0.1");
    EXPECT_EQ(NetworkMonManager::hexToIPv4("0501A8C0"), "192.168.1.5");
    EXPECT_EQ(NetworkMonManager::hexToIPv4("zz"), QString());
    EXPECT_EQ(NetworkMonManager::hexToIPv6("00000000000000000000000000000000"), "::");
    // Groups stay in the order they stand: the kernel's ::1 reads like this.
    EXPECT_EQ(NetworkMonManager::hexToIPv6("00000000000000000000000001000000"), "0000:0000:0000:0000:0000:0000:0100:0000");
    EXPECT_EQ(NetworkMonManager::hexToIPv6("ABCD"), "ABCD:::::::");
}

TEST(NetworkMonManagerTest, ProcWayReadsKernelTables)
{
    NetworkMonManager manager(HostPaths::fromFixtureRoot(edrtest::fixturePath("roots/network")), ToolRunner(QStringList()));
    QJsonObject body;
    ASSERT_TRUE(manager.getUsedPortList(body));
    auto find = [&](const char* list, const char* protocol, int port) {
        for (const QJsonValue& v : body[QLatin1String(list)].toArray())
            if (v["Protocol"] == protocol && v["LocalPort"] == port)
                return v.toObject();
        return QJsonObject();
    };
    auto record = [](std::initializer_list<QPair<QString, QJsonValue>> own) {
        QJsonObject r{{"PID", 8853}, {"ProcessName", "python3\n"},
                      {"FilePath", "/root/.pyenv/versions/3.11.7/bin/python3.11"}};
        for (const auto& p : own)
            r.insert(p.first, p.second);
        return r;
    };
    // The kernel's LISTEN (10) and unconnected UDP (7) in our numbering; "UPD" as the server spells it.
    EXPECT_EQ(find("ListeningPorts", "TCP", 45671),
              record({{"Protocol", "TCP"}, {"LocalIP", "127.0.0.1"}, {"LocalPort", 45671}, {"State", 9}}));
    EXPECT_EQ(find("ListeningPorts", "UPD6", 45674),
              record({{"Protocol", "UPD6"}, {"LocalIP", "::"}, {"LocalPort", 45674}, {"State", 8}}));
    EXPECT_FALSE(find("ListeningPorts", "UPD", 45673).isEmpty());
    const QString loop6 = "0000:0000:0000:0000:0000:0000:0100:0000";
    EXPECT_EQ(find("TCPConnections", "TCP6", 60604),
              record({{"Protocol", "TCP6"}, {"LocalIP", loop6}, {"LocalPort", 60604}, {"RemoteIP", loop6},
                      {"RemotePort", 45672}, {"State", 3}}));
    // Truncated and garbled tables lose only their broken lines.
    QJsonArray l, c;
    NetworkMonManager::parseConnectionTable("  sl local\n   0: 0100007F:B267 00000000:0000 0A\n   1: zz\n   2:", 1, "TCP",
                                            QString(), QString(), l, c);
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
