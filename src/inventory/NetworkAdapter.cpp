#include "inventory/NetworkAdapter.h"

QJsonObject NetworkAdapter::toJson() const
{
    QJsonObject o;
    o.insert(QStringLiteral("Name"), m_name);
    o.insert(QStringLiteral("MACAddress"), m_macAddress);
    o.insert(QStringLiteral("ServiceName"), m_serviceName);
    o.insert(QStringLiteral("Manufacturer"), m_manufacture);
    o.insert(QStringLiteral("NetworkAddresses"), m_networkAddress);
    o.insert(QStringLiteral("Installed"), m_installed);
    o.insert(QStringLiteral("PhysicalAdapter"), m_physical);
    o.insert(QStringLiteral("Speed"), m_speed);
    o.insert(QStringLiteral("TimeOfLastReset"), m_lastReset);
    o.insert(QStringLiteral("Description"), m_description);
    return o;
}
