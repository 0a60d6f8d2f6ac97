#include "inventory/InventoryFixtures.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <algorithm>

using edrtest::FakeToolDir;

namespace {

// The whole report of each fixture machine against its expected body; only
// the operating system comes from the machine running the test.
TEST(HardwareInfoManager, FixtureMachinesMatchTheirExpectedBodies)
{
    for (const QString scenario : {"laptop", "server", "qemu-vm", "nodmi"}) {
        SCOPED_TRACE(qPrintable(scenario));
        invtest::Machine m(scenario);
        QJsonObject report;
        ASSERT_TRUE(m.manager->getHardwareInfo(report, QString()));
        // dmidecode quiet, one type a run (the fixtures pick the type); lsblk with its two column sets.
        for (const QStringList& call : m.tools.invocations("dmidecode"))
            EXPECT_EQ(call.mid(0, 2), (QStringList{"-q", "-t"}));
        EXPECT_EQ(m.tools.invocations("lsblk"),
                  (QList<QStringList>{{"--output", "MODEL,SIZE,TYPE,SERIAL,PATH", "-J", "-e", "7"},
                                      {"--output", "FSSIZE,FSAVAIL,NAME,UUID,FSTYPE,TYPE,HOTPLUG,MOUNTPOINT,LABEL,STATE",
                                       "-J", "-e", "7"}}));
        const QJsonArray os = report.take("OperatingSystem").toArray();
        ASSERT_EQ(os.size(), 1);
        EXPECT_EQ(os[0].toObject().keys(),
                  (QStringList{"Caption", "Manufacturer", "OSArchitecture", "SerialNumber", "Version"}));
        EXPECT_EQ(os[0]["SerialNumber"].toString(),
                  edrtest::readFixture("roots/" + scenario + "/proc/sys/kernel/random/boot_id").trimmed());

        const QJsonObject expected = invtest::jsonOf(edrtest::readFixture("expected/hardware/" + scenario + ".json"));
        EXPECT_EQ(report.keys(), expected.keys());
        for (const QString& key : expected.keys())
            EXPECT_EQ(report.value(key), expected.value(key))
                << qPrintable(key) << " got:\n" << QJsonDocument(QJsonObject{{key, report.value(key)}}).toJson().constData();
    }
}

TEST(HardwareInfoManager, SystemTypeAndFailedNameCalls)
{
    // x86_64 and aarch64 are covered by the fixture machines.
    EXPECT_EQ(HardwareInfoManager::systemTypeOf("i686"), "x86-based PC");

    invtest::Machine m("laptop");
    m.manager->setSystemNamesSource([] { return HardwareInfoManager::SystemNames(); });
    QJsonObject report;
    ASSERT_TRUE(m.manager->getHardwareInfo(report, QString()));
    const QJsonObject cs = report.value("ComputerSystem").toObject();
    for (const char* key : {"Name", "Caption", "Domain", "SystemType"})
        EXPECT_FALSE(cs.contains(key)) << key;
    EXPECT_EQ(cs.value("UserName").toString(), "alice|alice|bob");
}

TEST(HardwareInfoManager, IpListIsDistinctAndOrderedByAddress)
{
    AgentDetails::_LAN_CARD_CONFIG a;
    a.ipAddresses = QStringList{"192.0.2.7", "10.0.0.5"};
    a.subnetMasks = QStringList{"255.255.255.0", "255.0.0.0"};
    AgentDetails::_LAN_CARD_CONFIG b;
    b.ipAddresses = QStringList{"192.0.2.7", "9.9.9.9"};
    b.subnetMasks = QStringList{"255.255.0.0"}; // shorter than the address list
    EXPECT_EQ(HardwareInfoManager::buildIpList({a, b}),
              (QJsonArray{"10.0.0.5/255.0.0.0", "192.0.2.7/255.255.0.0", "9.9.9.9/"}));
}

// The posted body is the report; every selector of an order gathers it again.
TEST(HardwareInfoManager, PostedOnceAndGatheredPerSelector)
{
    edrtest::ServerUnderTest peer;
    invtest::Machine m("qemu-vm");
    const auto systemReads = [&m] {
        const QList<QStringList> calls = m.tools.invocations("dmidecode");
        return std::count_if(calls.begin(), calls.end(), [](const QStringList& c) { return c.value(2) == "1"; });
    };
    EXPECT_TRUE(m.manager->sendRptToServer(QString()));
    EXPECT_EQ(systemReads(), 1);
    const QJsonObject posted = peer.posted("machineInfo/addMachineInfo");
    EXPECT_TRUE(peer.logHas("Successfully send hardware info to server."));
    QJsonObject thrice;
    ASSERT_TRUE(m.manager->collectReport(thrice, "a||c"));
    EXPECT_EQ(systemReads(), 4);
    EXPECT_EQ(posted, thrice);
}

TEST(HardwareInfoManager, HangingOrGarbageToolsStillGiveAReport)
{
    static const char kJunk[] = "\x7f" "ELF\x02\x01\x01\t\t{\"blockdevices\":[\n\n\tSize: \xff\xfe\n";
    for (const bool hang : {true, false}) {
        FakeToolDir tools;
        for (const char* tool : {"dmidecode", "lsblk", "who", "last"})
            hang ? tools.addHangingTool(tool) : tools.addTool(tool, QByteArray(kJunk, sizeof kJunk - 1), 3);
        const HostPaths root = invtest::rootOf("laptop");
        UsersAccountManager users(root, tools.runner());
        users.setTimeoutMs(300);
        HardwareInfoManager manager(root, tools.runner(), &users, invtest::adaptersOf("laptop"));
        manager.setToolTimeoutMs(300);
        QElapsedTimer t;
        t.start();
        QJsonObject report;
        ASSERT_TRUE(manager.getHardwareInfo(report, QString()));
        EXPECT_LT(t.elapsed(), 20000);
        EXPECT_EQ(report.value("Users").toArray().size(), 5);
        for (const char* key : {"Disk", "Volumes"})
            EXPECT_EQ(report.value(key), QJsonValue(QJsonArray())) << key;
        // Adapters come from the interfaces and /sys alone: broken tools cost none of them.
        EXPECT_EQ(report.value("NetworkAdapter"),
                  invtest::jsonOf(edrtest::readFixture("expected/hardware/laptop.json")).value("NetworkAdapter"));
        EXPECT_FALSE(report.value("NetworkAdapter").toArray().isEmpty());
        if (!hang)
            continue;
        EXPECT_FALSE(report.contains("ComputerSystem"));
        for (const char* key : {"PhysicalMemory", "Processor", "BIOS", "Battery"})
            EXPECT_EQ(report.value(key), QJsonValue(QJsonArray())) << key;
    }
}

} // namespace
