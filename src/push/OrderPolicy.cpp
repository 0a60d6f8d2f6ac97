#include "push/OrderPolicy.h"

#include "core/CLogger.h"
#include "schedule/TasksManager.h"

#include <cerrno>

OrderPolicy::OrderPolicy(const EdrAgentConfig& config) : m_config(config) {}

QStringList OrderPolicy::keys()
{
    return {QStringLiteral("Terminal"),      QStringLiteral("Osquery"),       QStringLiteral("Kill"),
            QStringLiteral("ServiceOrders"), QStringLiteral("StartupApps"),   QStringLiteral("Firewall"),
            QStringLiteral("Update"),        QStringLiteral("TraceLogReset"), QStringLiteral("AuditFailure")};
}

// Orders run unless denied; an order without its audit record runs only when allowed.
OrderPolicy::Decision OrderPolicy::defaultDecision(const QString& key)
{
    return key == QLatin1String("AuditFailure") ? Deny : Allow;
}

QString OrderPolicy::keyFor(const PushCommand& command)
{
    switch (command.kind) {
    case PushCommand::Update:
        return QStringLiteral("Update");
    case PushCommand::ResetTraceLog:
        return QStringLiteral("TraceLogReset");
    case PushCommand::Report:
        if (command.task == TasksManager::MTasks)
            return QStringLiteral("Terminal");
        if (command.task == TasksManager::OS_Query)
            return QStringLiteral("Osquery");
        return QString();
    case PushCommand::Action:
        switch (command.task) {
        case TasksManager::Processes:
            return QStringLiteral("Kill");
        case TasksManager::Services:
            return QStringLiteral("ServiceOrders");
        case TasksManager::StartUp:
            return QStringLiteral("StartupApps");
        case TasksManager::WindowsFirewallStatus:
            return QStringLiteral("Firewall");
        default:
            return QString();
        }
    default:
        return QString();
    }
}

OrderPolicy::Decision OrderPolicy::decision(const QString& key, QString* value) const
{
    const QString text = m_config.getSetting(QStringLiteral("Policy/") + key).trimmed();
    if (value)
        *value = text;
    if (text.isEmpty())
        return defaultDecision(key);
    if (text.compare(QLatin1String("allow"), Qt::CaseInsensitive) == 0)
        return Allow;
    if (text.compare(QLatin1String("deny"), Qt::CaseInsensitive) == 0)
        return Deny;
    return Unknown;
}

bool OrderPolicy::allows(const QString& key) const
{
    QString value;
    const Decision d = decision(key, &value);
    if (d == Unknown)
        EDR_LOG->Error(Q_FUNC_INFO, EINVAL, "Policy %s has the unknown value '%s'; treated as deny",
                       qUtf8Printable(key), qUtf8Printable(value));
    return d == Allow;
}

QString OrderPolicy::describe() const
{
    QString out;
    for (const QString& key : keys()) {
        QString value;
        switch (decision(key, &value)) {
        case Allow:
            out += key + QStringLiteral("=allow\n");
            break;
        case Deny:
            out += key + QStringLiteral("=deny\n");
            break;
        case Unknown:
            out += key + QStringLiteral("=deny (unknown value \"") + value + QStringLiteral("\")\n");
            break;
        }
    }
    return out;
}
