#include "control/NetworkMonManager.h"

#include "control/ControlTestHelpers.h"

using edrtest::FakeToolDir;

namespace
{

TEST(NetworkMonManagerTest, ToolLinesOfEveryShape)
{
    QJsonArray listening, connections;
    NetworkMonManager::parseLsofOutput(
        "COMMAND PID USER FD TYPE DEVICE SIZE/OFF NODE NAME\n"
        "curl 92 root 5u IPv4 3 0t0 TCP 10.0.0.1:5124->10.0.0.2:443 (SYN_SENT)\n"
        "odd 93 root 5u IPv4 3 0t0 TCP 10.0.0.1:5125 (CLOSE_WAIT)\n"
        "short x\n"
        "dropped because no line feed follows",
        listening, connections);
    // Missing columns are empty texts, and an empty state word means listening.
    EXPECT_EQ(listening, QJsonDocument::fromJson(R"j([{"FilePath":"short","LocalIP":"","LocalPort":0,"PID":0,
        "ProcessName":"short","Protocol":"","State":2}])j")
                             .array());
    EXPECT_EQ(connections, QJsonDocument::fromJson(R"j([
        {"FilePath":"curl","LocalIP":"10.0.0.1","LocalPort":5124,"PID":92,"ProcessName":"curl","Protocol":"TCP",
         "RemoteIP":"10.0.0.2","RemotePort":443,"State":1},
        {"FilePath":"odd","LocalIP":"10.0.0.1","LocalPort":5125,"PID":93,"ProcessName":"odd","Protocol":"TCP",
         "RemoteIP":"","RemotePort":0,"State":8}])j")
                               .array());

    // ss: the process part is sought in column 5 and read only when it is there.
    QList<int> asked;
    listening = QJsonArray();
    NetworkMonManager::parseSsOutput("tcp LISTEN 0 128 10.0.0.5:80 users:((\"nginx\",pid=77,fd=6))\n"
                                     "udp UNCONN 0 0 [::]:53 (nameonly))\n"
                                     "tcp ESTAB 0 0 1.2.3.4:5\n\n",
                                     listening, [&](int pid) {
                                         asked << pid;
                                         return QStringLiteral("/usr/sbin/nginx");
                                     });
    EXPECT_EQ(listening, QJsonDocument::fromJson(R"j([
        {"FilePath":"/usr/sbin/nginx","LocalIP":"10.0.0.5","LocalPort":80,"PID":77,"ProcessName":"\"nginx\"",
         "Protocol":"tcp","RemoteIP":"users","RemotePort":0,"State":2},
        {"LocalIP":"[::]","LocalPort":53,"Protocol":"udp","RemoteIP":"(nameonly))","RemotePort":0,"State":2},
        {"LocalIP":"1.2.3.4","LocalPort":5,"Protocol":"tcp","RemoteIP":"","RemotePort":0}])j")
                             .array());
    EXPECT_EQ(asked, QList<int>{77});
}

TEST(NetworkMonManagerTest, StateTables)
{
    const QPair<QString, int> words[] = {
        {"", 2},         {"(LISTEN)", 2}, {"(ESTABLISHED)", 5}, {"(CLOSE_WAIT)", 8}, {"(TIME_WAIT)", 11},
        {"(listen)", 1}, {"LISTEN", 1}};
    for (const auto& w : words)
        EXPECT_EQ(NetworkMonManager::getState(w.first), w.second) << qPrintable(w.first);
    const int kernel[] = {5, 3, 4, 6, 7, 11, 1, 8, 10, 2, 9, 12}; // then unchanged outside 0..11
    for (int i = -1; i < 14; ++i)
        EXPECT_EQ(NetworkMonManager::getState(i), i >= 0 && i < 12 ? kernel[i] : i) << i;
}

TEST(NetworkMonManagerTest, ProcWayReadsKernelTables)
{
    NetworkMonManager manager(HostPaths::fromFixtureRoot(edrtest::fixturePath("roots/network")),
                              ToolRunner(QStringList()));
    QJsonObject body;
    ASSERT_TRUE(manager.getUsedPortList(body));
    QStringList seen;
    for (const QString list : {"ListeningPorts", "TCPConnections"})
        for (const QJsonValue& v : body[list].toArray())
            seen << list + QJsonDocument(v.toObject()).toJson(QJsonDocument::Compact);
    EXPECT_EQ(seen.size(), 39 + 3 + 1 + 1); // every row of the four tables
    // The kernel's LISTEN (10) and unconnected UDP (7) in our numbering; "UPD" as the server spells it;
    // addresses as the kernel writes them (lowest byte first, IPv6 groups in place).
    const QString own = R"({"FilePath":"/root/.pyenv/versions/3.11.7/bin/python3.11","LocalIP":)";
    const QString tail = R"(,"PID":8853,"ProcessName":"python3\n","Protocol":)";
    const QString loop6 = R"("0000:0000:0000:0000:0000:0000:0100:0000")";
    for (const QString& record :
         {"ListeningPorts" + own + R"("127.0.0.1","LocalPort":45671)" + tail + R"("TCP","State":9})",
          "ListeningPorts" + own + R"("::","LocalPort":45674)" + tail + R"("UPD6","State":8})",
          "ListeningPorts" + own + R"("127.0.0.1","LocalPort":45673)" + tail + R"("UPD","State":8})",
          "TCPConnections" + own + loop6 + R"(,"LocalPort":60604)" + tail + R"("TCP6","RemoteIP":)" + loop6 +
              R"(,"RemotePort":45672,"State":3})"})
        EXPECT_TRUE(seen.contains(record)) << qPrintable(record);
    QJsonArray l, c; // truncated and garbled lines are dropped, the rest kept
    NetworkMonManager::parseConnectionTable(
        "  sl local\n   0: 0100007F:B267 00000000:0000 0A\n   1: zz\n   2:\n"
        "12565: 0100007F:0035 00000000:0000 07 0\n", // wide slot, no blank
        1, "UPD", QString(), QString(), l, c);
    EXPECT_EQ(l.size() + c.size(), 2);
    EXPECT_EQ(l.last()["LocalPort"], 53);
}

TEST(NetworkMonManagerTest, ReportFromCapturedToolsAndWithoutThem)
{
    FakeToolDir tools;
    tools.addToolFromFixture(QStringLiteral("lsof"), QStringLiteral("commands/lsof/sockets.stdout"));
    tools.addToolFromFixture(QStringLiteral("ss"), QStringLiteral("commands/ss/sockets.stdout"));
    NetworkMonManager manager(
        HostPaths::fromFixtureRoot(edrtest::fixturePath(QStringLiteral("roots/network"))), tools.runner());
    QJsonObject body;
    ASSERT_TRUE(manager.collectReport(body));
    EXPECT_EQ(body, edrtest::jsonFixture(QStringLiteral("expected/network/sockets.json")));
    EXPECT_EQ(tools.invocations(QStringLiteral("lsof")), QList<QStringList>({{"-P", "-n", "-i"}}));
    EXPECT_EQ(tools.invocations(QStringLiteral("ss")), QList<QStringList>({{"-tulnpH"}}));

    edrtest::ServerUnderTest peer; // no tools at all: an empty report still goes out
    FakeToolDir missing;
    EXPECT_TRUE(NetworkMonManager(HostPaths(), missing.runner()).sendRptToServer(QString()));
    EXPECT_EQ(peer.posted("machineInfo/addNwMonitoring"), QJsonObject());

    tools.addHangingTool(QStringLiteral("lsof")); // killed at its limit; ss still answers
    NetworkMonManager stuck(HostPaths(), tools.runner());
    stuck.setToolTimeoutMs(300);
    QJsonObject partial;
    EXPECT_TRUE(stuck.collectReport(partial));
    EXPECT_EQ(partial.keys(), QStringList{QStringLiteral("ListeningPorts")});
    EXPECT_EQ(partial.value(QStringLiteral("ListeningPorts")).toArray().size(), 5);
}

} // namespace
