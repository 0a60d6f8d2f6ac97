#pragma once

// Fixture machines for the inventory tests: fake tools printing each
// scenario's captured outputs, its host root and its network interfaces.

#include "core/HostPaths.h"
#include "inventory/HardwareInfoManager.h"
#include "inventory/NetworkAdapterInfo.h"
#include "support/TestSupport.h"

#include <QDate>
#include <QJsonObject>
#include <QList>
#include <QString>

namespace invtest {

// The day the fixture accounts are judged on.
inline QDate fixtureToday()
{
    return QDate(2024, 5, 20);
}

// dmidecode printing commands/dmidecode/<scenario>/<type>.stdout.
void addDmidecode(edrtest::FakeToolDir& tools, const QString& scenario, int exitCode = 0);
// lsblk printing commands/lsblk/<scenario>-disks|partitions.stdout by its columns.
void addLsblk(edrtest::FakeToolDir& tools, const QString& scenario);
// dmidecode, lsblk, who and last of a scenario.
void addScenarioTools(edrtest::FakeToolDir& tools, const QString& scenario);

HostPaths rootOf(const QString& scenario);
QList<NetworkAdapterInfo::InterfaceEntry> interfacesOf(const QString& scenario);
HardwareInfoManager::SystemNames namesOf(const QString& scenario);

QJsonObject readJsonFixture(const QString& relative);

} // namespace invtest
