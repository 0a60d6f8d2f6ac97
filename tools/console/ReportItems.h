#pragma once

// Turns a report body an agent posted into items keyed on what identifies
// them (package name, protocol/address/port, unit name, ...) and compares two
// item sets. Pure functions: no I/O, no SQL, any input accepted.

#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QStringList>

#include <map>
#include <optional>
#include <vector>

namespace ReportItems
{

// agent, hardware, software, processes, services, network, startup, firewall
const QStringList& categories();

// The category of a snapshot posted to an agent route ("machineInfo/addProcesses"),
// or nothing for routes that carry no snapshot (order results, registration).
std::optional<QString> categoryOf(const QString& route, const QJsonObject& body);

// Why a body cannot be a report of its category (the list it must hold is
// missing or not a list of objects); empty when it can.
QString problemWith(const QString& category, const QJsonObject& body);

// Natural key -> the item's compared fields. Volatile fields (a service's
// main PID, a user's password age) are left out so they make no change rows.
using Items = std::map<QString, QJsonObject>;
Items itemsOf(const QString& category, const QJsonObject& body);

struct Change {
    QString change; // added, removed, changed
    QString key;
    QJsonValue oldValue; // the item, or for "changed" only the fields that differ
    QJsonValue newValue;
};
std::vector<Change> diff(const Items& before, const Items& after);

// What the console keeps per host for search, read from the items.
struct Package {
    QString name, version;
    QString source; // the vendor (maintainer) where the report names one
};
struct Port {
    QString protocol, address;
    int port = 0;
    QString process;
};
struct Service {
    QString name, state, startMode;
};
struct StartupEntry {
    QString name, location, command, user;
};
std::vector<Package> packagesOf(const Items& items);
std::vector<Port> portsOf(const Items& items);
std::vector<Service> servicesOf(const Items& items);
std::vector<StartupEntry> startupOf(const Items& items);
QStringList processNamesOf(const Items& items);
QStringList userNamesOf(const Items& items); // hardware items

// Host facts a report carries; empty when the report does not say.
struct HostFacts {
    QString hostname, ip, os, agentVersion;
};
HostFacts factsOf(const QString& category, const QJsonObject& body);

} // namespace ReportItems
