#include "inventory/InventoryFixtures.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

// The whole report of each fixture machine against its expected body; only
// the operating system comes from the machine running the test.
TEST(HardwareInfoManager, FixtureMachinesMatchTheirExpectedBodies)
{
    for (const QString scenario : {"laptop", "server", "qemu-vm", "nodmi"}) {
        SCOPED_TRACE(qPrintable(scenario));
        invtest::Machine m(scenario);
        QJsonObject report;
        ASSERT_TRUE(m.manager->getHardwareInfo(report, QString()));
        // dmidecode's arguments pick its fixture output (one type a run); lsblk with its two column sets.
        EXPECT_EQ(m.tools.invocations("lsblk"),
                  (QList<QStringList>{{"--output", "MODEL,SIZE,TYPE,SERIAL,PATH", "-J", "-e", "7"},
                                      {"--output",
                                       "FSSIZE,FSAVAIL,NAME,UUID,FSTYPE,TYPE,HOTPLUG,MOUNTPOINT,LABEL,STATE",
                                       "-J", "-e", "7"}}));
        const QJsonArray os = report.take("OperatingSystem").toArray();
        ASSERT_EQ(os.size(), 1);
        EXPECT_EQ(os[0].toObject().keys(),
                  (QStringList{"Caption", "Manufacturer", "OSArchitecture", "SerialNumber", "Version"}));
        EXPECT_EQ(os[0]["SerialNumber"].toString(),
                  edrtest::readFixture("roots/" + scenario + "/proc/sys/kernel/random/boot_id").trimmed());

        // As indented text, so a mismatch shows as a diff.
        EXPECT_EQ(QJsonDocument(report).toJson().toStdString(),
                  QJsonDocument(edrtest::jsonFixture("expected/hardware/" + scenario + ".json"))
                      .toJson()
                      .toStdString());
    }
}

TEST(HardwareInfoManager, IpListSortedWithoutDuplicates)
{
    AgentDetails::_LAN_CARD_CONFIG a, b;
    a.ipAddresses = QStringList{"192.0.2.7", "10.0.0.5"};
    a.subnetMasks = QStringList{"255.255.255.0", "255.0.0.0"};
    b.ipAddresses = QStringList{"192.0.2.7", "9.9.9.9"};
    b.subnetMasks = QStringList{"255.255.0.0"}; // shorter than the address list
    EXPECT_EQ(HardwareInfoManager::buildIpList({a, b}),
              (QJsonArray{"10.0.0.5/255.0.0.0", "192.0.2.7/255.255.0.0", "9.9.9.9/"}));
}

// The posted body is the report, whose computer record keeps its other keys
// when the name calls fail; every selector of an order gathers it again (last
// runs once a gathering).
TEST(HardwareInfoManager, PostedOnceAndGatheredPerSelector)
{
    edrtest::ServerUnderTest peer;
    invtest::Machine m("laptop");
    m.manager->setSystemNamesSource([] { return HardwareInfoManager::SystemNames(); });
    EXPECT_TRUE(m.manager->sendRptToServer(QString()));
    EXPECT_EQ(m.tools.invocations("who"), QList<QStringList>{QStringList()});
    EXPECT_EQ(m.tools.invocations("last"), (QList<QStringList>{{"-w", "--time-format", "iso"}}));
    const QJsonObject posted = peer.posted("machineInfo/addMachineInfo");
    const QJsonObject cs = posted.value("ComputerSystem").toObject();
    for (const char* key : {"Name", "Caption", "Domain", "SystemType"})
        EXPECT_FALSE(cs.contains(key)) << key;
    EXPECT_EQ(cs.value("UserName").toString(), "alice|alice|bob");

    QJsonObject thrice;
    ASSERT_TRUE(m.manager->collectReport(thrice, "a||c"));
    EXPECT_EQ(m.tools.invocations("last").size(), 4);
    EXPECT_EQ(posted, thrice);
}

// Every tool hanging: each costs its own part of the report and no more than its limit.
TEST(HardwareInfoManager, HangingToolsStillGiveAReport)
{
    invtest::Machine m("laptop");
    for (const char* tool : {"dmidecode", "lsblk", "who", "last"})
        m.tools.addHangingTool(tool); // in place of the fixture's
    m.users.setTimeoutMs(300);
    m.manager->setToolTimeoutMs(300);
    QElapsedTimer t;
    t.start();
    QJsonObject report;
    ASSERT_TRUE(m.manager->getHardwareInfo(report, QString()));
    EXPECT_EQ(m.users.getCurrentLoginUsers(), ""); // who is not asked without a computer record
    EXPECT_LT(t.elapsed(), 20000);
    EXPECT_FALSE(report.contains("ComputerSystem"));
    for (const char* key : {"PhysicalMemory", "Processor", "Disk", "Volumes", "BIOS", "Battery"})
        EXPECT_EQ(report.value(key), QJsonValue(QJsonArray())) << key;
    EXPECT_EQ(report.value("Users").toArray().size(), 5);
    for (const QJsonValue& u : report.value("Users").toArray())
        EXPECT_EQ(u["LastLogon"], "");
    // Adapters come from the interfaces and /sys alone.
    EXPECT_EQ(report.value("NetworkAdapter"),
              edrtest::jsonFixture("expected/hardware/laptop.json").value("NetworkAdapter"));
    EXPECT_FALSE(report.value("NetworkAdapter").toArray().isEmpty());
}
