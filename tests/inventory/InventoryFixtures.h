#pragma once

// Fixture machines for the inventory tests: fake tools printing a scenario's
// captured outputs, its host root, and the interfaces and system names of
// machines/<scenario>.json.

#include "inventory/HardwareInfoManager.h"
#include "inventory/UsersAccountManager.h"
#include "support/TestSupport.h"

#include <QJsonDocument>

#include <memory>

namespace invtest
{

inline QJsonObject jsonOf(const QByteArray& text)
{
    return QJsonDocument::fromJson(text).object();
}

inline HostPaths rootOf(const QString& scenario)
{
    return HostPaths::fromFixtureRoot(edrtest::fixturePath("roots/" + scenario));
}

// The password ages are judged on 2024-05-20. dmidecode prints
// dmidecode/<scenario>/<type>.stdout, exiting 1 on an empty one as it does
// without tables; lsblk picks its listing by the columns asked for.
struct Machine {
    explicit Machine(const QString& scenario) : users(rootOf(scenario), tools.runner())
    {
        const QByteArray dir = edrtest::fixturePath("commands/").toUtf8(), s = scenario.toUtf8();
        tools.addScript("dmidecode", "f='" + dir + "dmidecode/" + s +
                                         "'/\"$3\".stdout\n[ -s \"$f\" ] || exit 1\ncat \"$f\"\n");
        tools.addScript("lsblk", "case \"$2\" in MODEL,*) l=disks ;; *) l=partitions ;; esac\ncat '" + dir +
                                     "lsblk/" + s + "'-$l.stdout\n");
        tools.addToolFromFixture("who", "commands/who/" + scenario + ".stdout");
        tools.addToolFromFixture("last", "commands/last/" + scenario + ".stdout");
        users.setToday(QDate(2024, 5, 20));
        const QJsonObject m = edrtest::jsonFixture("machines/" + scenario + ".json");
        QList<NetworkAdapterInfo::InterfaceEntry> interfaces;
        for (const QJsonValue& v : m.value("interfaces").toArray()) {
            const QString name = v["name"].toString();
            const QStringList flags = v["flags"].toString().split(' ');
            interfaces << NetworkAdapterInfo::InterfaceEntry{name,
                                                             name,
                                                             v["mac"].toString(),
                                                             flags.contains("up"),
                                                             flags.contains("running"),
                                                             flags.contains("loopback"),
                                                             v["addresses"].toVariant().toStringList()};
        }
        manager = std::make_unique<HardwareInfoManager>(
            rootOf(scenario), tools.runner(), &users,
            NetworkAdapterInfo(rootOf(scenario), [interfaces] { return interfaces; }));
        const HardwareInfoManager::SystemNames names{
            m.value("hostName").toString(), m.value("domainName").toString(), m.value("machine").toString()};
        manager->setSystemNamesSource([names] { return names; });
    }
    edrtest::FakeToolDir tools;
    UsersAccountManager users;
    std::unique_ptr<HardwareInfoManager> manager;
};

} // namespace invtest
