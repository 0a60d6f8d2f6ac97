#include "inventory/InventoryFixtures.h"

#include <QJsonDocument>

#include <gtest/gtest.h>

namespace invtest {

using edrtest::FakeToolDir;
using edrtest::fixturePath;

void addDmidecode(FakeToolDir& tools, const QString& scenario, int exitCode)
{
    const QByteArray dir = fixturePath(QStringLiteral("commands/dmidecode/") + scenario).toUtf8();
    tools.addScript(QStringLiteral("dmidecode"), "f='" + dir + "'/\"$3\".stdout\n[ -f \"$f\" ] && cat \"$f\"\nexit " +
                                                    QByteArray::number(exitCode) + "\n");
}

void addLsblk(FakeToolDir& tools, const QString& scenario)
{
    const QByteArray base = fixturePath(QStringLiteral("commands/lsblk/") + scenario).toUtf8();
    tools.addScript(QStringLiteral("lsblk"), "case \"$2\" in\n  MODEL,*) cat '" + base +
                                                "-disks.stdout' ;;\n  *) cat '" + base + "-partitions.stdout' ;;\nesac\n");
}

void addScenarioTools(FakeToolDir& tools, const QString& scenario)
{
    addDmidecode(tools, scenario, scenario == QLatin1String("nodmi") ? 1 : 0);
    addLsblk(tools, scenario);
    tools.addToolFromFixture(QStringLiteral("who"), QStringLiteral("commands/who/") + scenario + QStringLiteral(".stdout"));
    tools.addToolFromFixture(QStringLiteral("last"), QStringLiteral("commands/last/") + scenario + QStringLiteral(".stdout"));
}

HostPaths rootOf(const QString& scenario)
{
    return HostPaths::fromFixtureRoot(fixturePath(QStringLiteral("roots/") + scenario));
}

namespace {

NetworkAdapterInfo::InterfaceEntry entry(const char* name, const char* mac, bool running, bool loopback,
                                         QStringList addresses)
{
    NetworkAdapterInfo::InterfaceEntry e;
    e.name = QString::fromLatin1(name);
    e.humanReadableName = e.name;
    e.hardwareAddress = QString::fromLatin1(mac);
    e.up = true;
    e.running = running;
    e.loopback = loopback;
    e.addresses = std::move(addresses);
    return e;
}

const char* const kLoMac = "00:00:00:00:00:00";

} // namespace

QList<NetworkAdapterInfo::InterfaceEntry> interfacesOf(const QString& scenario)
{
    const QStringList lo{QStringLiteral("127.0.0.1"), QStringLiteral("::1")};
    if (scenario == QLatin1String("laptop"))
        return {entry("lo", kLoMac, true, true, lo),
                entry("enp0s31f6", "00:00:5E:00:53:01", true, false,
                      {QStringLiteral("192.0.2.15"), QStringLiteral("2001:db8::15")}),
                entry("wlp0s20f3", "00:00:5E:00:53:02", true, false,
                      {QStringLiteral("198.51.100.23"), QStringLiteral("fe80::200:5eff:fe00:5302%wlp0s20f3")}),
                // docker0 without containers: up, no carrier
                entry("docker0", "02:42:00:00:53:03", false, false, {QStringLiteral("172.17.0.1")})};
    if (scenario == QLatin1String("server"))
        return {entry("lo", kLoMac, true, true, lo),
                entry("eno1", "00:00:5E:00:53:11", true, false, {}),
                entry("eno2", "00:00:5E:00:53:12", false, false, {}),
                entry("br0", "00:00:5E:00:53:11", true, false, {QStringLiteral("203.0.113.10")}),
                entry("eno1.100", "00:00:5E:00:53:11", true, false, {QStringLiteral("10.0.100.5")}),
                entry("enp59s0f0", "00:00:5E:00:53:13", true, false, {QStringLiteral("198.51.100.40")})};
    if (scenario == QLatin1String("qemu-vm"))
        return {entry("lo", kLoMac, true, true, lo),
                entry("enp1s0", "52:54:00:12:34:56", true, false,
                      {QStringLiteral("10.0.2.15"), QStringLiteral("fec0::5054:ff:fe12:3456")})};
    // this machine, as QNetworkInterface lists it
    QList<NetworkAdapterInfo::InterfaceEntry> host{
        entry("lo", kLoMac, true, true, lo),
        entry("ifb0", "00:00:5E:00:53:21", false, false, {}),
        entry("ifb1", "00:00:5E:00:53:22", false, false, {}),
        entry("eth0", "00:00:5E:00:53:23", true, false,
              {QStringLiteral("192.0.2.2"), QStringLiteral("fd00::2"), QStringLiteral("fe80::fc:ff:fe00:1%eth0")})};
    host[1].up = false;
    host[2].up = false;
    return host;
}

HardwareInfoManager::SystemNames namesOf(const QString& scenario)
{
    HardwareInfoManager::SystemNames n;
    n.hostName = scenario + QStringLiteral("-host");
    n.domainName = scenario == QLatin1String("server") ? QStringLiteral("corp.example") : QStringLiteral("(none)");
    n.machine = scenario == QLatin1String("qemu-vm") ? QStringLiteral("aarch64") : QStringLiteral("x86_64");
    return n;
}

QJsonObject readJsonFixture(const QString& relative)
{
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(edrtest::readFixture(relative), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << qPrintable(relative) << ": " << qPrintable(error.errorString());
    return doc.object();
}

} // namespace invtest
