#include "ReportItems.h"

#include <QJsonArray>

#include <set>

namespace ReportItems
{
namespace
{
const QString kUsersPrefix = QStringLiteral("Users/");

QString str(const QJsonObject& o, const char* key)
{
    const QJsonValue v = o.value(QLatin1String(key));
    if (v.isString())
        return v.toString();
    if (v.isDouble())
        return QString::number(v.toDouble(), 'g', 15);
    if (v.isBool())
        return v.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    return QString();
}

QJsonObject without(QJsonObject o, std::initializer_list<const char*> keys)
{
    for (const char* k : keys)
        o.remove(QLatin1String(k));
    return o;
}

// A second item with a key already taken keeps both: "name (2)", "name (3)".
void put(Items& items, const QString& key, const QJsonObject& fields)
{
    QString k = key;
    for (int n = 2; items.count(k); ++n)
        k = QStringLiteral("%1 (%2)").arg(key).arg(n);
    items.emplace(k, fields);
}

template <typename F> void eachObject(const QJsonObject& body, const char* array, F f)
{
    for (const QJsonValue& v : body.value(QLatin1String(array)).toArray())
        if (v.isObject())
            f(v.toObject());
}

void networkItems(const QJsonObject& body, Items& items)
{
    // ss and lsof may both list one socket; the entry naming the process wins.
    eachObject(body, "ListeningPorts", [&](const QJsonObject& p) {
        const QJsonValue portValue = p.value(QLatin1String("LocalPort"));
        const QString port = portValue.isDouble() ? QString::number(portValue.toInt()) : portValue.toString();
        const QString key =
            QStringLiteral("%1 %2:%3").arg(str(p, "Protocol").toLower(), str(p, "LocalIP"), port);
        const QString process = str(p, "ProcessName");
        auto it = items.find(key);
        if (it == items.end())
            items.emplace(key, QJsonObject{{QStringLiteral("process"), process}});
        else if (it->second.value(QLatin1String("process")).toString().isEmpty())
            it->second.insert(QStringLiteral("process"), process);
    });
}

void hardwareItems(const QJsonObject& body, Items& items)
{
    for (auto it = body.begin(); it != body.end(); ++it) {
        if (it.key() == QLatin1String("Users"))
            continue;
        if (it.key() == QLatin1String("ComputerSystem") && it.value().isObject())
            items.emplace(it.key(), without(it.value().toObject(), {"UserName"}));
        else
            items.emplace(it.key(), QJsonObject{{QStringLiteral("value"), it.value()}});
    }
    eachObject(body, "Users", [&](const QJsonObject& u) {
        put(items, kUsersPrefix + str(u, "Name"), without(u, {"LastLogon", "PasswordAge"}));
    });
}
} // namespace

const QStringList& categories()
{
    static const QStringList names{QStringLiteral("agent"),    QStringLiteral("hardware"),
                                   QStringLiteral("software"), QStringLiteral("processes"),
                                   QStringLiteral("services"), QStringLiteral("network"),
                                   QStringLiteral("startup"),  QStringLiteral("firewall")};
    return names;
}

std::optional<QString> categoryOf(const QString& route, const QJsonObject& body)
{
    if (route == QLatin1String("machineInfo/addMachineInfo")) {
        // The agent information holds its two fields only; the hardware report more.
        for (auto it = body.begin(); it != body.end(); ++it)
            if (it.key() != QLatin1String("AgentVersion") && it.key() != QLatin1String("IpAddress"))
                return QStringLiteral("hardware");
        return QStringLiteral("agent");
    }
    static const std::map<QString, QString> byRoute{
        {QStringLiteral("machineInfo/addStartupApps"), QStringLiteral("startup")},
        {QStringLiteral("machineInfo/addProcesses"), QStringLiteral("processes")},
        {QStringLiteral("machineInfo/addServicess"), QStringLiteral("services")},
        {QStringLiteral("machineInfo/addNwMonitoring"), QStringLiteral("network")},
        {QStringLiteral("machineInfo/addInstallSoft"), QStringLiteral("software")},
        {QStringLiteral("firewall/firewallStatus"), QStringLiteral("firewall")}};
    const auto it = byRoute.find(route);
    if (it == byRoute.end())
        return std::nullopt;
    return it->second;
}

QString problemWith(const QString& category, const QJsonObject& body)
{
    // The list each report holds; those marked optional are left out when empty.
    static const std::map<QString, std::vector<std::pair<const char*, bool>>> lists{
        {QStringLiteral("software"), {{"InstallSoft", false}}},
        {QStringLiteral("services"), {{"Services", false}}},
        {QStringLiteral("startup"), {{"Startup_Apps", false}}},
        {QStringLiteral("processes"), {{"Process", false}}},
        {QStringLiteral("network"), {{"ListeningPorts", true}, {"TCPConnections", true}}},
        {QStringLiteral("hardware"), {{"Users", true}}}};
    const auto it = lists.find(category);
    if (it != lists.end()) {
        for (const auto& [key, optional] : it->second) {
            const QJsonValue v = body.value(QLatin1String(key));
            if (v.isUndefined() && optional)
                continue;
            if (!v.isArray())
                return QStringLiteral("\"%1\" is not a list").arg(QLatin1String(key));
            for (const QJsonValue& e : v.toArray())
                if (!e.isObject())
                    return QStringLiteral("\"%1\" holds something else than objects").arg(QLatin1String(key));
        }
    }
    if (category == QLatin1String("agent"))
        for (auto f = body.begin(); f != body.end(); ++f)
            if (!f.value().isString())
                return QStringLiteral("\"%1\" is not a string").arg(f.key());
    return QString();
}

Items itemsOf(const QString& category, const QJsonObject& body)
{
    Items items;
    if (category == QLatin1String("software")) {
        // A flatpak's Name is its title; the package name is its application id.
        eachObject(body, "InstallSoft", [&](const QJsonObject& p) {
            const QString name = str(p, "PackageName").isEmpty() ? str(p, "Name") : str(p, "PackageName");
            put(items, name, without(p, {"PackageName"}));
        });
    } else if (category == QLatin1String("services")) {
        eachObject(body, "Services", [&](const QJsonObject& s) {
            put(items, str(s, "Name"), without(s, {"Name", "ProcessId"}));
        });
    } else if (category == QLatin1String("startup")) {
        eachObject(body, "Startup_Apps", [&](const QJsonObject& s) {
            put(items, str(s, "Location") + QLatin1Char('/') + str(s, "Name"),
                without(s, {"Location", "Name"}));
        });
    } else if (category == QLatin1String("processes")) {
        // The agent leaves the line end of /proc/PID/comm on the name.
        eachObject(body, "Process", [&](const QJsonObject& p) {
            const QString name = str(p, "Name").trimmed();
            if (!items.count(name))
                items.emplace(name, QJsonObject());
        });
    } else if (category == QLatin1String("network")) {
        networkItems(body, items);
    } else if (category == QLatin1String("hardware")) {
        hardwareItems(body, items);
    } else if (category == QLatin1String("agent")) {
        for (auto it = body.begin(); it != body.end(); ++it)
            items.emplace(it.key(), QJsonObject{{QStringLiteral("value"), it.value()}});
    } else if (category == QLatin1String("firewall")) {
        items.emplace(QStringLiteral("firewall"), without(body, {"socId"}));
    }
    return items;
}

std::vector<Change> diff(const Items& before, const Items& after)
{
    std::vector<Change> out;
    auto b = before.begin();
    auto a = after.begin();
    while (b != before.end() || a != after.end()) {
        if (a == after.end() || (b != before.end() && b->first < a->first)) {
            out.push_back({QStringLiteral("removed"), b->first, b->second, QJsonValue()});
            ++b;
        } else if (b == before.end() || a->first < b->first) {
            out.push_back({QStringLiteral("added"), a->first, QJsonValue(), a->second});
            ++a;
        } else {
            QJsonObject oldFields, newFields;
            std::set<QString> keys;
            for (auto it = b->second.begin(); it != b->second.end(); ++it)
                keys.insert(it.key());
            for (auto it = a->second.begin(); it != a->second.end(); ++it)
                keys.insert(it.key());
            for (const QString& k : keys) {
                const QJsonValue o = b->second.value(k), n = a->second.value(k);
                if (o != n) {
                    oldFields.insert(k, o);
                    newFields.insert(k, n);
                }
            }
            if (!oldFields.isEmpty())
                out.push_back({QStringLiteral("changed"), a->first, oldFields, newFields});
            ++a;
            ++b;
        }
    }
    return out;
}

std::vector<Package> packagesOf(const Items& items)
{
    std::vector<Package> out;
    for (const auto& [key, fields] : items)
        out.push_back({key, str(fields, "Version"), str(fields, "Vendor")});
    return out;
}

std::vector<Port> portsOf(const Items& items)
{
    std::vector<Port> out;
    for (const auto& [key, fields] : items) {
        // "proto address:port"; an IPv6 address holds colons of its own.
        const int space = key.indexOf(QLatin1Char(' '));
        const int colon = key.lastIndexOf(QLatin1Char(':'));
        if (space < 0 || colon < space)
            continue;
        out.push_back({key.left(space), key.mid(space + 1, colon - space - 1), key.mid(colon + 1).toInt(),
                       str(fields, "process")});
    }
    return out;
}

std::vector<Service> servicesOf(const Items& items)
{
    std::vector<Service> out;
    for (const auto& [key, fields] : items)
        out.push_back({key, str(fields, "State"), str(fields, "StartMode")});
    return out;
}

std::vector<StartupEntry> startupOf(const Items& items)
{
    std::vector<StartupEntry> out;
    for (const auto& [key, fields] : items) {
        const int slash = key.lastIndexOf(QLatin1Char('/'));
        out.push_back(
            {key.mid(slash + 1), key.left(std::max(slash, 0)), str(fields, "Command"), str(fields, "User")});
    }
    return out;
}

QStringList processNamesOf(const Items& items)
{
    QStringList out;
    for (const auto& item : items)
        out << item.first;
    return out;
}

QStringList userNamesOf(const Items& items)
{
    QStringList out;
    for (auto it = items.lower_bound(kUsersPrefix); it != items.end() && it->first.startsWith(kUsersPrefix);
         ++it)
        out << it->first.mid(kUsersPrefix.size());
    return out;
}

HostFacts factsOf(const QString& category, const QJsonObject& body)
{
    HostFacts f;
    if (category == QLatin1String("agent") || category == QLatin1String("hardware")) {
        f.ip = str(body, "IpAddress");
        f.agentVersion = str(body, "AgentVersion");
    }
    if (category == QLatin1String("hardware")) {
        f.hostname = str(body.value(QLatin1String("ComputerSystem")).toObject(), "Name");
        const QJsonArray os = body.value(QLatin1String("OperatingSystem")).toArray();
        if (!os.isEmpty())
            f.os = str(os.first().toObject(), "Caption");
    }
    return f;
}

} // namespace ReportItems
