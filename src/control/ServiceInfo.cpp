#include "control/ServiceInfo.h"

QJsonObject ServiceInfo::toJson() const
{
    QJsonObject record;
    record.insert(QStringLiteral("AcceptPause"), m_acceptPause);
    record.insert(QStringLiteral("AcceptStop"), m_acceptStop);
    record.insert(QStringLiteral("DelayedAutoStart"), m_delayedAutoStart);
    record.insert(QStringLiteral("Description"), m_description);
    record.insert(QStringLiteral("DesktopInteract"), m_desktopInteract);
    record.insert(QStringLiteral("DisplayName"), m_displayName);
    record.insert(QStringLiteral("ExitCode"), m_exitCode);
    record.insert(QStringLiteral("Name"), m_name);
    record.insert(QStringLiteral("PathName"), m_pathName);
    record.insert(QStringLiteral("ProcessId"), m_processId);
    record.insert(QStringLiteral("ServiceType"), m_serviceType);
    record.insert(QStringLiteral("StartMode"), m_startMode);
    record.insert(QStringLiteral("StartName"), m_startName);
    record.insert(QStringLiteral("Started"), m_started);
    record.insert(QStringLiteral("State"), m_state);
    record.insert(QStringLiteral("Status"), m_status);
    return record;
}
