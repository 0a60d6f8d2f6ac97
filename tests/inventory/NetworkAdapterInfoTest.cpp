#include "inventory/InventoryFixtures.h"

#include <gtest/gtest.h>

// Whole adapter lists are in the fixture machines' reports.
TEST(NetworkAdapterInfo, TextHelpersAndMissingSysfs)
{
    const QByteArray db =
        "# 8086 comment\n8086\n8086   Intel   Corporation \n\t15fb  I219-LM\n14e4 Broadcom\n";
    EXPECT_EQ(NetworkAdapterInfo::findVendorName(db, "8086"), "Intel Corporation");
    EXPECT_EQ(NetworkAdapterInfo::findVendorName(db, "15b3"), "Unknown Vendor");
    const std::pair<const char*, const char*> speeds[] = {{"1000\n", "1000000"},
                                                          {"-1\n", "-1000"},
                                                          {"", "0"},
                                                          {"fast\n", "0"},
                                                          {"2147483647", "2147483647000"}};
    for (const auto& s : speeds)
        EXPECT_EQ(NetworkAdapterInfo::speedText(s.first), s.second) << s.first;
    EXPECT_EQ(NetworkAdapterInfo(invtest::rootOf("laptop")).getAdapterSpeed("tun0"), "NA");
}

// The interfaces as the system lists them: the loopback flag gives both flags.
TEST(NetworkAdapterInfo, LiveLoopbackIsListed)
{
    QJsonArray out;
    EXPECT_TRUE(NetworkAdapterInfo().getNetworkAdapterInfo(out));
    QJsonArray loopbacks; // the Installed and PhysicalAdapter flags of each
    for (const QJsonValue& a : out)
        if (a["ServiceName"] == "lo")
            loopbacks.append(QJsonArray{a["Installed"], a["PhysicalAdapter"]});
    EXPECT_EQ(loopbacks, QJsonDocument::fromJson("[[true, true]]").array());
}
