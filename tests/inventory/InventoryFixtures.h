#pragma once

// Fixture machines for the inventory tests: fake tools printing a scenario's
// captured outputs, its host root, and the interfaces and system names of
// machines/<scenario>.json.

#include "inventory/HardwareInfoManager.h"
#include "inventory/UsersAccountManager.h"
#include "support/TestSupport.h"

#include <QJsonDocument>

#include <memory>

namespace invtest {

inline QJsonObject jsonOf(const QByteArray& text)
{
    return QJsonDocument::fromJson(text).object();
}

inline HostPaths rootOf(const QString& scenario)
{
    return HostPaths::fromFixtureRoot(edrtest::fixturePath("roots/" + scenario));
}

// dmidecode prints dmidecode/<scenario>/<type>.stdout, exiting 1 on an empty
// one as it does without tables; lsblk picks its listing by the columns asked for.
inline void addScenarioTools(edrtest::FakeToolDir& tools, const QString& scenario)
{
    const QByteArray dir = edrtest::fixturePath("commands/").toUtf8();
    const QByteArray s = scenario.toUtf8();
    tools.addScript("dmidecode", "f='" + dir + "dmidecode/" + s + "'/\"$3\".stdout\n[ -s \"$f\" ] || exit 1\ncat \"$f\"\n");
    tools.addScript("lsblk", "case \"$2\" in MODEL,*) l=disks ;; *) l=partitions ;; esac\ncat '" + dir + "lsblk/" + s +
                                 "'-$l.stdout\n");
    tools.addToolFromFixture("who", "commands/who/" + scenario + ".stdout");
    tools.addToolFromFixture("last", "commands/last/" + scenario + ".stdout");
}

inline NetworkAdapterInfo adaptersOf(const QString& scenario)
{
    QList<NetworkAdapterInfo::InterfaceEntry> list;
    const QJsonObject machine = jsonOf(edrtest::readFixture("machines/" + scenario + ".json"));
    for (const QJsonValue& v : machine.value("interfaces").toArray()) {
        const QStringList flags = v["flags"].toString().split(' ');
        NetworkAdapterInfo::InterfaceEntry e;
        e.name = e.humanReadableName = v["name"].toString();
        e.hardwareAddress = v["mac"].toString();
        e.up = flags.contains("up");
        e.running = flags.contains("running");
        e.loopback = flags.contains("loopback");
        for (const QJsonValue& a : v["addresses"].toArray())
            e.addresses << a.toString();
        list << e;
    }
    return NetworkAdapterInfo(rootOf(scenario), [list] { return list; });
}

// One fixture machine: its tools, its root, its interfaces, its names; the
// password ages are judged on 2024-05-20.
struct Machine {
    explicit Machine(const QString& scenario) : users(rootOf(scenario), tools.runner())
    {
        addScenarioTools(tools, scenario);
        users.setToday(QDate(2024, 5, 20));
        manager = std::make_unique<HardwareInfoManager>(rootOf(scenario), tools.runner(), &users, adaptersOf(scenario));
        const QJsonObject m = jsonOf(edrtest::readFixture("machines/" + scenario + ".json"));
        HardwareInfoManager::SystemNames names;
        names.hostName = m.value("hostName").toString();
        names.domainName = m.value("domainName").toString();
        names.machine = m.value("machine").toString();
        manager->setSystemNamesSource([names] { return names; });
    }
    edrtest::FakeToolDir tools;
    UsersAccountManager users;
    std::unique_ptr<HardwareInfoManager> manager;
};

} // namespace invtest
