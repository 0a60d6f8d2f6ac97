#include "inventory/CHardwareInfo.h"
#include "inventory/CDmiInfo.h"
#include "inventory/InventoryFixtures.h"

#include <QJsonDocument>

#include <gtest/gtest.h>

using edrtest::FakeToolDir;

namespace {

QJsonObject obj(const char* json)
{
    return QJsonDocument::fromJson(json).object();
}

QString str(const QJsonObject& o, const char* key)
{
    return o.value(QLatin1String(key)).toString();
}

TEST(CHardwareInfo, ProcessorAdditions)
{
    struct Case {
        const char* type;
        const char* code;
    } cases[] = {{"Central Processor", "3"}, {"Math Processor", "4"}, {"DSP Processor", "5"},
                 {"Video Processor", "6"},   {"Unknown", "2"},        {"central processor", "1"},
                 {"Other", "1"}};
    for (const Case& c : cases)
        EXPECT_EQ(CHardwareInfo::processorTypeCode(QString::fromLatin1(c.type)), QString::fromLatin1(c.code)) << c.type;

    const QJsonObject r = CHardwareInfo::enrichProcessor(
        obj(R"({"ID":"EC 06","Version":"i7","Max Speed":"Unknown","Current Speed":"3600 MHz","Core Count":"4"})"));
    EXPECT_EQ(str(r, "ProcessorId"), QStringLiteral("EC 06"));
    EXPECT_EQ(str(r, "Name"), QStringLiteral("i7"));
    EXPECT_EQ(str(r, "MaxClockSpeed"), QStringLiteral("Unknown"));
    EXPECT_EQ(str(r, "CurrentClockSpeed"), QStringLiteral("3600"));
    EXPECT_EQ(str(r, "NumberOfCores"), QStringLiteral("4"));
    EXPECT_EQ(str(r, "Max Speed"), QStringLiteral("Unknown")); // source keys stay
    for (const char* absent : {"ProcessorType", "PartNumber", "ThreadCount"})
        EXPECT_FALSE(r.contains(QLatin1String(absent))) << absent;
}

// Empty slots carry no serial number: the walk must still end, each slot once.
TEST(CHardwareInfo, MemoryWithEmptySlotsEnds)
{
    FakeToolDir tools;
    invtest::addDmidecode(tools, QStringLiteral("server"));
    QJsonArray mem;
    EXPECT_TRUE(CHardwareInfo(HostPaths(), tools.runner()).getMemoryInfoToJSON(mem));
    ASSERT_EQ(mem.size(), 8);
    QStringList locators;
    for (const QJsonValue& v : mem) {
        const QJsonObject m = v.toObject();
        locators << str(m, "Locator");
        EXPECT_EQ(str(m, "Name"), QStringLiteral("Physical Memory"));
        const bool empty = str(m, "Size") == QLatin1String("No Module Installed");
        EXPECT_EQ(str(m, "Capacity"), empty ? QStringLiteral("0") : QStringLiteral("34359738368"));
        EXPECT_EQ(m.contains(QStringLiteral("SerialNumber")), !empty);
        EXPECT_EQ(m.contains(QStringLiteral("PartNumber")), !empty);
    }
    EXPECT_EQ(locators.join(QLatin1Char(',')), QStringLiteral("A1,A2,A3,A4,B1,B2,B3,B4"));
    EXPECT_EQ(str(mem.at(0).toObject(), "PartNumber"), QStringLiteral("HMA84GR7CJR4N-WM     "));

    // A record with no source keys at all, and a stray non-object.
    QJsonArray odd{QJsonObject{}, QStringLiteral("x")};
    CHardwareInfo::enrichMemoryDevices(odd);
    EXPECT_EQ(odd, (QJsonArray{QJsonObject{{QStringLiteral("Name"), QStringLiteral("Physical Memory")}},
                               QStringLiteral("x")}));
}

QJsonArray volumesOf(const char* scenario)
{
    QJsonArray out;
    CHardwareInfo::parsePartitions(
        edrtest::readFixture(QStringLiteral("commands/lsblk/%1-partitions.stdout").arg(QLatin1String(scenario))), out);
    return out;
}

TEST(CHardwareInfo, VolumesAreMountedFirstLevelChildren)
{
    const QJsonArray laptop = volumesOf("laptop");
    QStringList names;
    for (const QJsonValue& v : laptop) {
        names << str(v.toObject(), "DiskName") + QLatin1Char(':') + str(v.toObject(), "Name");
        EXPECT_FALSE(v.toObject().contains(QStringLiteral("DriveType")));
    }
    // LVM member, NTFS partition (unmounted) and the volumes inside LVM are not listed.
    EXPECT_EQ(names.join(QLatin1Char(',')),
              QStringLiteral("sda:/media/alice/USBSTICK,nvme0n1:/boot/efi,nvme0n1:/boot,nvme0n1:[SWAP]"));

    const QJsonObject swap = laptop.at(3).toObject();
    EXPECT_EQ(str(swap, "DriveLetter"), QStringLiteral("[SWAP]"));
    EXPECT_FALSE(swap.contains(QStringLiteral("Capacity")));
    EXPECT_FALSE(swap.contains(QStringLiteral("FreeSpace")));
    EXPECT_FALSE(swap.contains(QStringLiteral("Label")));

    // A file system on a whole disk has no child to report.
    EXPECT_EQ(volumesOf("server").size(), 3);
    EXPECT_TRUE(volumesOf("nodmi").isEmpty());
}

TEST(CHardwareInfo, VolumeEdgeCases)
{
    QJsonArray out;
    // The disk name carries over to a disk without one; a boolean label gives DriveType.
    CHardwareInfo::parsePartitions(R"({"blockdevices":[
        {"name":"sda","children":[{"mountpoint":"/a","label":true}]},
        {"name":null,"children":[{"mountpoint":"/b","label":false}, 7, {"mountpoint":null}]},
        {"name":"sdc","children":"no"}, "x"]})", out);
    ASSERT_EQ(out.size(), 2);
    EXPECT_EQ(out.at(0).toObject().value(QStringLiteral("DriveType")), QJsonValue(2));
    EXPECT_EQ(str(out.at(1).toObject(), "DiskName"), QStringLiteral("sda"));
    EXPECT_EQ(out.at(1).toObject().value(QStringLiteral("DriveType")), QJsonValue(3));

    for (const char* bad : {"", "not json", "[1,2]", R"({"blockdevices":{}})", R"({"blockdevices":[{"model":1}]})"}) {
        QJsonArray disks;
        QJsonArray vols;
        CHardwareInfo::parseDisks(bad, disks);
        CHardwareInfo::parsePartitions(bad, vols);
        EXPECT_TRUE(disks.isEmpty() && vols.isEmpty()) << bad;
    }
}

TEST(CHardwareInfo, LsblkIsRunWithItsColumnsAndFailuresGiveFalse)
{
    FakeToolDir tools;
    invtest::addLsblk(tools, QStringLiteral("laptop"));
    CHardwareInfo hw(HostPaths(), tools.runner());
    QJsonArray disks;
    QJsonArray vols;
    EXPECT_TRUE(hw.getDiskInfoToJSON(disks));
    EXPECT_TRUE(hw.getPartitionInfoToJSON(vols));
    const QList<QStringList> calls = tools.invocations(QStringLiteral("lsblk"));
    ASSERT_EQ(calls.size(), 2);
    EXPECT_EQ(calls.at(0), CHardwareInfo::diskArguments());
    EXPECT_EQ(calls.at(1), CHardwareInfo::partitionArguments());
    EXPECT_EQ(calls.at(1).join(QLatin1Char(' ')),
              QStringLiteral("--output FSSIZE,FSAVAIL,NAME,UUID,FSTYPE,TYPE,HOTPLUG,MOUNTPOINT,LABEL,STATE -J -e 7"));

    FakeToolDir broken;
    broken.addTool(QStringLiteral("lsblk"), "lsblk: failed to access sysfs directory: /sys/dev/block\n", 32);
    CHardwareInfo bad(HostPaths(), broken.runner());
    QJsonArray none;
    EXPECT_FALSE(bad.getDiskInfoToJSON(none));
    EXPECT_FALSE(bad.getPartitionInfoToJSON(none));
    EXPECT_FALSE(CHardwareInfo(HostPaths(), FakeToolDir().runner()).getDiskInfoToJSON(none));
}

} // namespace
