#include "service/ReportCommand.h"

#include "comm/AgentManager.h"
#include "control/FirewallManager.h"
#include "control/NetworkMonManager.h"
#include "control/ProcessManager.h"
#include "control/ServiceManager.h"
#include "control/StartupAppsManager.h"
#include "inventory/HardwareInfoManager.h"
#include "inventory/InstallSoftManager.h"

#include <QJsonDocument>

#include <algorithm>
#include <cstdio>
#include <map>

namespace
{
using Collector = std::function<bool(QJsonObject&)>;

const std::map<QString, Collector>& collectors()
{
    static const std::map<QString, Collector> table = {
        {QStringLiteral("agent-info"),
         [](QJsonObject& body) {
             // The agent-information report posts plain fields, which the
             // transport turns into an object of strings.
             const QMap<QString, QString> fields = AgentManager::getInstance()->agentInfoFields();
             for (auto f = fields.constBegin(); f != fields.constEnd(); ++f)
                 body.insert(f.key(), f.value());
             return true;
         }},
        {QStringLiteral("startup"),
         [](QJsonObject& body) { return StartupAppsManager::getInstance()->collectReport(body); }},
        {QStringLiteral("hardware"),
         [](QJsonObject& body) { return HardwareInfoManager::getInstance()->collectReport(body); }},
        {QStringLiteral("software"),
         [](QJsonObject& body) { return InstallSoftManager::getInstance()->collectReport(body); }},
        {QStringLiteral("processes"),
         [](QJsonObject& body) { return ProcessManager::getInstance()->collectReport(body); }},
        {QStringLiteral("services"),
         [](QJsonObject& body) { return ServiceManager::getInstance()->collectReport(body); }},
        {QStringLiteral("network"),
         [](QJsonObject& body) { return NetworkMonManager::getInstance()->collectReport(body); }},
        {QStringLiteral("firewall"),
         [](QJsonObject& body) { return FirewallManager::getInstance()->collectReport(body); }},
    };
    return table;
}
} // namespace

QStringList ReportCommand::names()
{
    QStringList out;
    for (const auto& entry : collectors())
        out << entry.first;
    return out;
}

QByteArray ReportCommand::wireBody(const QJsonObject& object)
{
    // One pass: QByteArray::replace searches for every line feed afresh.
    QByteArray text = QJsonDocument(object).toJson();
    text.truncate(static_cast<int>(std::remove(text.begin(), text.end(), '\n') - text.begin()));
    return text;
}

int ReportCommand::run(const QString& name)
{
    const auto it = collectors().find(name);
    if (it == collectors().end()) {
        std::fprintf(stderr, "edr-agent: unknown report '%s' (known: %s)\n", qUtf8Printable(name),
                     qUtf8Printable(names().join(QStringLiteral(", "))));
        return 1;
    }
    QJsonObject body;
    bool ok = false;
    try {
        ok = it->second(body);
    } catch (...) {
        ok = false;
    }
    if (!ok) {
        std::fprintf(stderr, "edr-agent: the %s collector failed; see the trace log\n", qUtf8Printable(name));
        return 1;
    }
    const QByteArray text = wireBody(body);
    std::fwrite(text.constData(), 1, static_cast<size_t>(text.size()), stdout);
    std::fputc('\n', stdout);
    return 0;
}
