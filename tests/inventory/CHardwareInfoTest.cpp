#include "inventory/CHardwareInfo.h"
#include "inventory/InventoryFixtures.h"

#include <gtest/gtest.h>

using invtest::jsonOf;

// The cases the fixture machines' dmidecode outputs do not print.
TEST(CHardwareInfo, ProcessorAndMemoryAdditions)
{
    const std::pair<const char*, const char*> types[] = {{"Central Processor", "3"}, {"Math Processor", "4"},
                                                         {"DSP Processor", "5"},     {"Video Processor", "6"},
                                                         {"Unknown", "2"},           {"Other", "1"}};
    for (const auto& t : types)
        EXPECT_EQ(CHardwareInfo::processorTypeCode(t.first), t.second) << t.first;
    EXPECT_EQ(CHardwareInfo::enrichProcessor(
                  jsonOf(R"({"ID":"x","Max Speed":"Unknown","Type":"central processor"})")),
              jsonOf(R"({"ID":"x","Max Speed":"Unknown","Type":"central processor",
                         "ProcessorId":"x","MaxClockSpeed":"Unknown","ProcessorType":"1"})"));

    // A record without any source key and a stray non-object: each visited once, the walk ends.
    QJsonArray odd{QJsonObject{}, "x", QJsonObject{{"Size", "2048 MB"}}};
    CHardwareInfo::enrichMemoryDevices(odd);
    EXPECT_EQ(
        odd, (QJsonArray{
                 QJsonObject{{"Name", "Physical Memory"}}, "x",
                 QJsonObject{{"Size", "2048 MB"}, {"Name", "Physical Memory"}, {"Capacity", "2147483648"}}}));
}

TEST(CHardwareInfo, VolumeEdgeCases)
{
    QJsonArray out;
    // The disk name carries over to a disk without one; a boolean label gives DriveType.
    CHardwareInfo::parsePartitions(R"({"blockdevices":[
        {"name":"sda","children":[{"mountpoint":"/a","label":true}]},
        {"name":null,"children":[{"mountpoint":"/b","label":false}, 7, {"mountpoint":null}]},
        {"name":"sdc","children":"no"}, "x"]})",
                                   out);
    EXPECT_EQ(out,
              (QJsonArray{jsonOf(R"({"DiskName":"sda","Name":"/a","DriveLetter":"/a","DriveType":2})"),
                          jsonOf(R"({"DiskName":"sda","Name":"/b","DriveLetter":"/b","DriveType":3})")}));

    for (const char* bad :
         {"", "not json", "[1,2]", R"({"blockdevices":{}})", R"({"blockdevices":[{"model":1}]})"}) {
        QJsonArray disks, vols;
        CHardwareInfo::parseDisks(bad, disks);
        CHardwareInfo::parsePartitions(bad, vols);
        EXPECT_TRUE(disks.isEmpty() && vols.isEmpty()) << bad;
    }
}
