#include "inventory/InventoryFixtures.h"

#include <QHostAddress>

#include <gtest/gtest.h>

// Whole adapter lists are in the fixture machines' reports.
TEST(NetworkAdapterInfo, TextHelpersAndMissingSysfs)
{
    const QByteArray db = "# 8086 comment\n8086\n8086   Intel   Corporation \n\t15fb  I219-LM\n14e4 Broadcom\n"
                          "8086 0001 flat device line\n";
    EXPECT_EQ(NetworkAdapterInfo::findVendorName(db, "8086"), "Intel Corporation");
    EXPECT_EQ(NetworkAdapterInfo::findVendorName(db, "15b3"), "Unknown Vendor");
    EXPECT_EQ(NetworkAdapterInfo::findVendorName(QByteArray(), "8086"), "Unknown Vendor");
    EXPECT_EQ(NetworkAdapterInfo::findDeviceName(db, "8086", "1"), "0001 flat device line");
    EXPECT_EQ(NetworkAdapterInfo::sysfsId("0x8086\n"), "8086");
    EXPECT_EQ(NetworkAdapterInfo::sysfsId("14e4"), "14e4");
    const std::pair<const char*, const char*> speeds[] = {
        {"1000\n", "1000000"}, {"-1\n", "-1000"}, {"", "0"}, {"fast\n", "0"}, {"2147483647", "2147483647000"}};
    for (const auto& s : speeds)
        EXPECT_EQ(NetworkAdapterInfo::speedText(s.first), s.second) << s.first;

    NetworkAdapterInfo info(invtest::rootOf("laptop"));
    EXPECT_EQ(info.getAdapterManufacturer("tun0"), "NA");
    EXPECT_EQ(info.getAdapterSpeed("tun0"), "NA");
    QNetworkAddressEntry v4, v6;
    v4.setIp(QHostAddress("192.0.2.1"));
    v6.setIp(QHostAddress("2001:db8::1"));
    EXPECT_EQ(info.getNetworkAddressesOfQNetworkInterface({v4, v6}), "192.0.2.1, 2001:db8::1");
    EXPECT_EQ(info.getNetworkAddressesOfQNetworkInterface({}), "");
}

TEST(NetworkAdapterInfo, LiveLoopbackIsListed)
{
    QJsonArray out;
    EXPECT_TRUE(NetworkAdapterInfo().getNetworkAdapterInfo(out));
    int loopbacks = 0;
    for (const QJsonValue& a : out) {
        if (a["ServiceName"] != "lo")
            continue;
        ++loopbacks;
        EXPECT_EQ(a["Manufacturer"], "NA");
        EXPECT_EQ(a["Installed"], true);
        EXPECT_EQ(a["PhysicalAdapter"], true);
    }
    EXPECT_EQ(loopbacks, 1);
}
