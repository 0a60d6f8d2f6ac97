#include "inventory/HardwareInfoManager.h"
#include "inventory/InventoryFixtures.h"
#include "inventory/UsersAccountManager.h"

#include <QElapsedTimer>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include <memory>

using edrtest::FakeToolDir;

namespace {

// One fixture machine: its tools, its root, its interfaces, its names.
struct Machine {
    explicit Machine(const QString& scenario)
        : users(invtest::rootOf(scenario), tools.runner())
    {
        invtest::addScenarioTools(tools, scenario);
        users.setToday(invtest::fixtureToday());
        const QList<NetworkAdapterInfo::InterfaceEntry> entries = invtest::interfacesOf(scenario);
        manager = std::make_unique<HardwareInfoManager>(
            invtest::rootOf(scenario), tools.runner(), &users,
            NetworkAdapterInfo(invtest::rootOf(scenario), [entries] { return entries; }));
        const HardwareInfoManager::SystemNames names = invtest::namesOf(scenario);
        manager->setSystemNamesSource([names] { return names; });
    }
    FakeToolDir tools;
    UsersAccountManager users;
    std::unique_ptr<HardwareInfoManager> manager;
};

class HardwareReport : public ::testing::TestWithParam<const char*> {};

// The whole report of each fixture machine, key by key; only the operating
// system comes from the machine running the test.
TEST_P(HardwareReport, MatchesExpectedBody)
{
    const QString scenario = QString::fromLatin1(GetParam());
    Machine m(scenario);
    QJsonObject report;
    ASSERT_TRUE(m.manager->getHardwareInfo(report, QString()));
    const QJsonArray os = report.take(QStringLiteral("OperatingSystem")).toArray();
    ASSERT_EQ(os.size(), 1);
    EXPECT_EQ(os.at(0).toObject().value(QStringLiteral("SerialNumber")).toString(),
              QString::fromLatin1(edrtest::readFixture(QStringLiteral("roots/") + scenario +
                                                       QStringLiteral("/proc/sys/kernel/random/boot_id")))
                  .trimmed());

    const QJsonObject expected = invtest::readJsonFixture(QStringLiteral("expected/hardware/") + scenario + QStringLiteral(".json"));
    EXPECT_EQ(report.keys(), expected.keys());
    for (const QString& key : expected.keys())
        EXPECT_EQ(report.value(key), expected.value(key))
            << qPrintable(key) << " got:\n"
            << QJsonDocument(QJsonObject{{key, report.value(key)}}).toJson().constData();
}

INSTANTIATE_TEST_SUITE_P(Machines, HardwareReport, ::testing::Values("laptop", "server", "qemu-vm", "nodmi"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             std::string s = info.param;
                             for (char& c : s)
                                 if (c == '-')
                                     c = '_';
                             return s;
                         });

TEST(HardwareInfoManager, NoDmiTablesMeansNoComputerSystemAndEmptyFirmware)
{
    Machine m(QStringLiteral("nodmi"));
    QJsonObject report;
    ASSERT_TRUE(m.manager->getHardwareInfo(report, QString()));
    EXPECT_FALSE(report.contains(QStringLiteral("ComputerSystem")));
    EXPECT_EQ(report.value(QStringLiteral("BIOS")), QJsonValue(QJsonArray()));
    EXPECT_EQ(report.value(QStringLiteral("Battery")), QJsonValue(QJsonArray()));
    EXPECT_EQ(report.value(QStringLiteral("PhysicalMemory")), QJsonValue(QJsonArray()));
}

TEST(HardwareInfoManager, SystemTypeAndFailedNameCalls)
{
    EXPECT_EQ(HardwareInfoManager::systemTypeOf(QStringLiteral("x86_64")), QStringLiteral("x64-based PC"));
    EXPECT_EQ(HardwareInfoManager::systemTypeOf(QStringLiteral("aarch64")), QStringLiteral("x64-based PC"));
    EXPECT_EQ(HardwareInfoManager::systemTypeOf(QStringLiteral("i686")), QStringLiteral("x86-based PC"));

    Machine m(QStringLiteral("laptop"));
    m.manager->setSystemNamesSource([] { return HardwareInfoManager::SystemNames(); });
    QJsonObject report;
    ASSERT_TRUE(m.manager->getHardwareInfo(report, QString()));
    const QJsonObject cs = report.value(QStringLiteral("ComputerSystem")).toObject();
    for (const char* key : {"Name", "Caption", "Domain", "SystemType"})
        EXPECT_FALSE(cs.contains(QLatin1String(key))) << key;
    EXPECT_EQ(cs.value(QStringLiteral("UserName")).toString(), QStringLiteral("alice|alice|bob"));

    const HardwareInfoManager::SystemNames live = HardwareInfoManager::readSystemNames();
    EXPECT_TRUE(live.hostName && live.domainName && live.machine);
}

TEST(HardwareInfoManager, IpListIsDistinctAndOrderedByAddress)
{
    AgentDetails::_LAN_CARD_CONFIG a;
    a.ipAddresses = QStringList{QStringLiteral("192.0.2.7"), QStringLiteral("10.0.0.5")};
    a.subnetMasks = QStringList{QStringLiteral("255.255.255.0"), QStringLiteral("255.0.0.0")};
    AgentDetails::_LAN_CARD_CONFIG b;
    b.ipAddresses = QStringList{QStringLiteral("192.0.2.7"), QStringLiteral("9.9.9.9")};
    b.subnetMasks = QStringList{QStringLiteral("255.255.0.0")}; // shorter than the address list
    EXPECT_EQ(HardwareInfoManager::buildIpList({a, b}),
              (QJsonArray{QStringLiteral("10.0.0.5/255.0.0.0"), QStringLiteral("192.0.2.7/255.255.0.0"),
                          QStringLiteral("9.9.9.9/")}));
    EXPECT_EQ(HardwareInfoManager::buildIpList({}), QJsonArray());
}

TEST(HardwareInfoManager, EverySelectorGathersAgain)
{
    edrtest::ScratchPrefix prefix;
    Machine m(QStringLiteral("qemu-vm"));
    const auto systemReads = [&m] {
        int n = 0;
        for (const QStringList& call : m.tools.invocations(QStringLiteral("dmidecode")))
            n += call.value(2) == QLatin1String("1") ? 1 : 0;
        return n;
    };
    QJsonObject once;
    ASSERT_TRUE(m.manager->collectReport(once));
    EXPECT_EQ(systemReads(), 1);
    QJsonObject thrice;
    ASSERT_TRUE(m.manager->collectReport(thrice, QStringLiteral("a||c")));
    EXPECT_EQ(systemReads(), 4);
    EXPECT_EQ(once, thrice);

    AgentDetails* agent = AgentDetails::getInstance();
    EXPECT_EQ(once.value(QStringLiteral("IpAddress")).toString(), agent->getLocalIpAddress());
    EXPECT_EQ(once.value(QStringLiteral("AgentVersion")).toString(), agent->getAgentVersion());
    EXPECT_EQ(once.value(QStringLiteral("IP_List")).toArray(), HardwareInfoManager::buildIpList(agent->getAllLanCardDetails()));
}

TEST(HardwareInfoManager, HangingAndGarbageToolsStillGiveAReport)
{
    FakeToolDir hanging;
    for (const char* tool : {"dmidecode", "lsblk", "who", "last"})
        hanging.addHangingTool(QString::fromLatin1(tool));
    UsersAccountManager users(invtest::rootOf(QStringLiteral("laptop")), hanging.runner());
    users.setTimeoutMs(300);
    HardwareInfoManager manager(invtest::rootOf(QStringLiteral("laptop")), hanging.runner(), &users,
                                NetworkAdapterInfo(invtest::rootOf(QStringLiteral("laptop")), [] {
                                    return QList<NetworkAdapterInfo::InterfaceEntry>();
                                }));
    manager.setToolTimeoutMs(300);
    QElapsedTimer t;
    t.start();
    QJsonObject report;
    ASSERT_TRUE(manager.getHardwareInfo(report, QString()));
    EXPECT_LT(t.elapsed(), 20000);
    EXPECT_FALSE(report.contains(QStringLiteral("ComputerSystem")));
    for (const char* key : {"PhysicalMemory", "Processor", "Disk", "Volumes", "NetworkAdapter", "BIOS", "Battery"})
        EXPECT_EQ(report.value(QLatin1String(key)), QJsonValue(QJsonArray())) << key;
    EXPECT_EQ(report.value(QStringLiteral("Users")).toArray().size(), 5);

    FakeToolDir garbage;
    static const char kJunk[] = "\x7f" "ELF\x02\x01\x01\t\t{\"blockdevices\":[\n\n\tSize: \xff\xfe\n";
    const QByteArray junk(kJunk, sizeof kJunk - 1);
    for (const char* tool : {"dmidecode", "lsblk", "who", "last"})
        garbage.addTool(QString::fromLatin1(tool), junk, 3);
    UsersAccountManager users2(invtest::rootOf(QStringLiteral("laptop")), garbage.runner());
    HardwareInfoManager manager2(invtest::rootOf(QStringLiteral("laptop")), garbage.runner(), &users2,
                                 NetworkAdapterInfo(invtest::rootOf(QStringLiteral("laptop"))));
    QJsonObject report2;
    EXPECT_TRUE(manager2.getHardwareInfo(report2, QString()));
    EXPECT_EQ(report2.value(QStringLiteral("Disk")), QJsonValue(QJsonArray()));
}

TEST(HardwareInfoManager, SendsToTheMachineInfoRoute)
{
    edrtest::FakeHttpServer server;
    edrtest::ScratchPrefix prefix;
    prefix.pointAtServer(server.port());
    Machine m(QStringLiteral("laptop"));
    EXPECT_TRUE(m.manager->sendRptToServer(QString()));
    ASSERT_TRUE(server.waitForRequests(1, 5000));
    const edrtest::RecordedRequest r = server.requests().at(0);
    EXPECT_TRUE(r.target.endsWith("/machineInfo/addMachineInfo")) << r.target.constData();
    const QJsonObject posted = QJsonDocument::fromJson(r.body).object();
    QJsonObject local;
    ASSERT_TRUE(m.manager->collectReport(local));
    EXPECT_EQ(posted.keys(), local.keys());
    EXPECT_EQ(posted.value(QStringLiteral("Volumes")), local.value(QStringLiteral("Volumes")));
    EXPECT_TRUE(prefix.traceLog().contains("Successfully send hardware info to server."));
}

} // namespace
