// Report bodies to items and item sets to change rows, from bodies the agent
// posted (tests/fixtures/console, tests/fixtures/expected).

#include "ReportItems.h"

#include "core/HostPaths.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

using namespace ReportItems;

namespace
{
QJsonObject body(const char* path)
{
    return QJsonDocument::fromJson(
               HostPaths::readFile(QStringLiteral(EDR_FIXTURES_DIR "/") + QLatin1String(path)))
        .object();
}

QString describe(const std::vector<Change>& changes)
{
    QStringList out;
    for (const Change& c : changes)
        out << c.change + QLatin1Char(' ') + c.key;
    return out.join(QStringLiteral("; "));
}
} // namespace

TEST(ReportItems, RoutesAndSharedRouteTellCategoriesApart)
{
    const QJsonObject info = body("console/agent-info.json");
    const QJsonObject hardware = body("expected/hardware/laptop.json");
    const QString shared = QStringLiteral("machineInfo/addMachineInfo");
    EXPECT_EQ(categoryOf(shared, info), QStringLiteral("agent"));
    EXPECT_EQ(categoryOf(shared, hardware), QStringLiteral("hardware"));
    EXPECT_EQ(categoryOf(QStringLiteral("machineInfo/addServicess"), {}), QStringLiteral("services"));
    EXPECT_EQ(categoryOf(QStringLiteral("firewall/firewallStatus"), {}), QStringLiteral("firewall"));
    // Order answers carry no snapshot.
    EXPECT_FALSE(categoryOf(QStringLiteral("settings/InvSettingsOutput"), {}));
    EXPECT_FALSE(categoryOf(QStringLiteral("cmdAndPS/cmdOutput"), {}));

    const HostFacts facts = factsOf(QStringLiteral("hardware"), hardware);
    EXPECT_EQ(facts.hostname, QStringLiteral("laptop-host"));
    EXPECT_EQ(factsOf(QStringLiteral("agent"), info).agentVersion, QStringLiteral("1.0.0"));
    EXPECT_TRUE(factsOf(QStringLiteral("agent"), info).hostname.isEmpty());
}

// An upgrade, an install and a removal among 30 packages give exactly three
// rows keyed by name, the upgrade with only the version; an unchanged body none.
TEST(ReportItems, SoftwareDiffIsByPackageName)
{
    const Items before = itemsOf(QStringLiteral("software"), body("console/software-before.json"));
    const Items after = itemsOf(QStringLiteral("software"), body("console/software-after.json"));
    ASSERT_EQ(before.size(), 30u);
    EXPECT_TRUE(diff(before, before).empty());
    const std::vector<Change> changes = diff(before, after);
    ASSERT_EQ(describe(changes),
              QStringLiteral("removed alsa-ucm-conf; changed apt-transport-https; added telnetd"));
    EXPECT_EQ(changes[1].oldValue.toObject(),
              (QJsonObject{{QStringLiteral("Version"), QStringLiteral("2.6.1")}}));
    EXPECT_EQ(changes[1].newValue.toObject(),
              (QJsonObject{{QStringLiteral("Version"), QStringLiteral("2.6.1+deb12u1")}}));
    EXPECT_TRUE(changes[0].newValue.isNull() && changes[2].oldValue.isNull());
    EXPECT_EQ(changes[2].newValue.toObject().value(QLatin1String("Version")),
              QStringLiteral("0.17+2.4-2+deb12u1"));

    const std::vector<Package> packages = packagesOf(after);
    const auto telnetd = std::find_if(packages.begin(), packages.end(),
                                      [](const Package& p) { return p.name == QLatin1String("telnetd"); });
    ASSERT_NE(telnetd, packages.end());
    EXPECT_EQ(telnetd->version, QStringLiteral("0.17+2.4-2+deb12u1"));
}

// A stopped service is a change of its state fields; a service that only got
// a new main PID is none.
TEST(ReportItems, ServiceChangesLeaveVolatileFieldsOut)
{
    const std::vector<Change> changes =
        diff(itemsOf(QStringLiteral("services"), body("console/services-before.json")),
             itemsOf(QStringLiteral("services"), body("console/services-after.json")));
    ASSERT_EQ(describe(changes), QStringLiteral("changed cron.service"));
    EXPECT_EQ(changes[0].oldValue.toObject().keys(),
              (QStringList{QStringLiteral("Started"), QStringLiteral("State")}));
    EXPECT_EQ(changes[0].newValue.toObject().value(QLatin1String("State")), QStringLiteral("Stopped"));
}

// ss and lsof both list a socket: one port, named after the process; IPv6
// addresses keep their colons.
TEST(ReportItems, ListeningPortsMergeAndSplitTheirKey)
{
    const Items items = itemsOf(QStringLiteral("network"), body("expected/network/sockets.json"));
    QStringList keys;
    for (const auto& item : items)
        keys << item.first;
    EXPECT_EQ(keys, (QStringList{"tcp 0.0.0.0:2024", "tcp 127.0.0.1:45671", "tcp [::1]:45672", "udp *:45674",
                                 "udp 127.0.0.1:45673"}));
    std::vector<Port> ports = portsOf(items);
    ASSERT_EQ(ports.size(), 5u);
    EXPECT_EQ(ports[2].address, QStringLiteral("[::1]"));
    EXPECT_EQ(ports[2].port, 45672);
    EXPECT_EQ(ports[2].process, QStringLiteral("python3"));
    EXPECT_EQ(ports[0].process, QString()); // ss alone could not name it
}

// Users are compared by name, without the fields that move every day.
TEST(ReportItems, HardwareComparesSectionsAndUsers)
{
    const QJsonObject before = body("expected/hardware/laptop.json");
    QJsonObject after = before;
    QJsonArray users = after.value(QLatin1String("Users")).toArray();
    QJsonObject root = users.at(0).toObject();
    root.insert(QStringLiteral("PasswordAge"), QStringLiteral("999"));
    root.insert(QStringLiteral("LastLogon"), QStringLiteral("2024-06-01 10:00:00"));
    users.replace(0, root);
    users.removeAt(2);
    after.insert(QStringLiteral("Users"), users);
    QJsonObject system = after.value(QLatin1String("ComputerSystem")).toObject();
    system.insert(QStringLiteral("UserName"), QStringLiteral("alice"));
    after.insert(QStringLiteral("ComputerSystem"), system);

    const Items items = itemsOf(QStringLiteral("hardware"), after);
    EXPECT_EQ(describe(diff(itemsOf(QStringLiteral("hardware"), before), items)),
              QStringLiteral("removed Users/bob"));
    EXPECT_EQ(userNamesOf(items), (QStringList{"alice", "carol", "dave", "root"}));
}

TEST(ReportItems, ProcessAndStartupState)
{
    const QStringList names =
        processNamesOf(itemsOf(QStringLiteral("processes"), body("expected/processes/processes.json")));
    EXPECT_EQ(names, (QStringList{"Unknown", "kthreadd", "process_api", "python3", "sleep"}));
    const std::vector<StartupEntry> startup =
        startupOf(itemsOf(QStringLiteral("startup"), body("console/startup.json")));
    ASSERT_EQ(startup.size(), 2u);
    EXPECT_EQ(startup[0].name, QStringLiteral("AT-SPI D-Bus Bus"));
    EXPECT_EQ(startup[0].location, QStringLiteral("/etc/xdg/autostart"));
    EXPECT_EQ(startup[1].command, QStringLiteral("xdg-user-dirs-update"));
}
