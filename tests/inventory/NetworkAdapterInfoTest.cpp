#include "inventory/InventoryFixtures.h"
#include "inventory/NetworkAdapterInfo.h"

#include <QHostAddress>
#include <QJsonObject>

#include <gtest/gtest.h>

namespace {

QList<NetworkAdapter> adaptersOf(const QString& scenario)
{
    const QList<NetworkAdapterInfo::InterfaceEntry> entries = invtest::interfacesOf(scenario);
    NetworkAdapterInfo info(invtest::rootOf(scenario), [entries] { return entries; });
    return info.getNetworkAdapterInfo();
}

QString summary(const NetworkAdapter& a)
{
    return QStringList{a.getServiceName(), a.getManufacture(), a.getSpeed(), a.getInstalled() ? QStringLiteral("T") : QStringLiteral("F"),
                       a.getPhysical() ? QStringLiteral("T") : QStringLiteral("F")}
        .join(QLatin1Char('|'));
}

TEST(NetworkAdapterInfo, MissingDatabaseAndMissingSysfs)
{
    // This machine has no pci.ids: a real device still degrades to "Unknown Vendor".
    const QList<NetworkAdapter> host = adaptersOf(QStringLiteral("nodmi"));
    ASSERT_EQ(host.size(), 2);
    EXPECT_EQ(summary(host.at(1)), QStringLiteral("eth0|Unknown Vendor|-1000|F|F"));

    NetworkAdapterInfo info(invtest::rootOf(QStringLiteral("laptop")));
    EXPECT_EQ(info.getAdapterManufacturer(QStringLiteral("tun0")), QStringLiteral("NA"));
    EXPECT_EQ(info.getAdapterSpeed(QStringLiteral("tun0")), QStringLiteral("NA"));
    EXPECT_EQ(info.getDeviceName(QStringLiteral("8086"), QStringLiteral("15fb")), QStringLiteral("Unknown Vendor"));
}

TEST(NetworkAdapterInfo, TextHelpers)
{
    const QByteArray db = "# 8086 comment\n8086\n8086   Intel   Corporation \n\t15fb  I219-LM\n14e4 Broadcom\n"
                          "8086 0001 flat device line\n";
    EXPECT_EQ(NetworkAdapterInfo::findVendorName(db, QStringLiteral("8086")), QStringLiteral("Intel Corporation"));
    EXPECT_EQ(NetworkAdapterInfo::findVendorName(db, QStringLiteral("15b3")), QStringLiteral("Unknown Vendor"));
    EXPECT_EQ(NetworkAdapterInfo::findVendorName(QByteArray(), QStringLiteral("8086")), QStringLiteral("Unknown Vendor"));
    EXPECT_EQ(NetworkAdapterInfo::findDeviceName(db, QStringLiteral("8086"), QStringLiteral("1")),
              QStringLiteral("0001 flat device line"));

    EXPECT_EQ(NetworkAdapterInfo::sysfsId("0x8086\n"), QStringLiteral("8086"));
    EXPECT_EQ(NetworkAdapterInfo::sysfsId("14e4"), QStringLiteral("14e4"));
    const std::pair<const char*, const char*> speeds[] = {
        {"1000\n", "1000000"}, {"-1\n", "-1000"}, {"", "0"}, {"fast\n", "0"}, {"2147483647", "2147483647000"}};
    for (const auto& s : speeds)
        EXPECT_EQ(NetworkAdapterInfo::speedText(s.first), QString::fromLatin1(s.second)) << s.first;

    NetworkAdapterInfo info;
    QNetworkAddressEntry v4;
    v4.setIp(QHostAddress(QStringLiteral("192.0.2.1")));
    QNetworkAddressEntry v6;
    v6.setIp(QHostAddress(QStringLiteral("2001:db8::1")));
    EXPECT_EQ(info.getNetworkAddressesOfQNetworkInterface({v4, v6}), QStringLiteral("192.0.2.1, 2001:db8::1"));
    EXPECT_EQ(info.getNetworkAddressesOfQNetworkInterface({}), QString());
}

TEST(NetworkAdapterInfo, LiveLoopbackIsListed)
{
    QJsonArray out;
    EXPECT_TRUE(NetworkAdapterInfo().getNetworkAdapterInfo(out));
    bool sawLoopback = false;
    for (const QJsonValue& v : out) {
        const QJsonObject a = v.toObject();
        if (a.value(QStringLiteral("ServiceName")).toString() != QLatin1String("lo"))
            continue;
        sawLoopback = true;
        EXPECT_EQ(a.value(QStringLiteral("Manufacturer")).toString(), QStringLiteral("NA"));
        EXPECT_TRUE(a.value(QStringLiteral("Installed")).toBool());
        EXPECT_TRUE(a.value(QStringLiteral("PhysicalAdapter")).toBool());
    }
    EXPECT_TRUE(sawLoopback);
}

} // namespace
