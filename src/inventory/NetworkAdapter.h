#pragma once

#include <QJsonObject>
#include <QString>

// One active network interface as the hardware report lists it.
class NetworkAdapter
{
public:
    QString getName() const { return m_name; }
    void setName(const QString& v) { m_name = v; }
    QString getMacAddress() const { return m_macAddress; }
    void setMacAddress(const QString& v) { m_macAddress = v; }
    QString getServiceName() const { return m_serviceName; }
    void setServiceName(const QString& v) { m_serviceName = v; }
    QString getManufacture() const { return m_manufacture; }
    void setManufacture(const QString& v) { m_manufacture = v; }
    QString getNetworkAddress() const { return m_networkAddress; }
    void setNetworkAddress(const QString& v) { m_networkAddress = v; }
    bool getInstalled() const { return m_installed; }
    void setInstalled(bool v) { m_installed = v; }
    bool getPhysical() const { return m_physical; }
    void setPhysical(bool v) { m_physical = v; }
    QString getSpeed() const { return m_speed; }
    void setSpeed(const QString& v) { m_speed = v; }
    QString getLastReset() const { return m_lastReset; }
    void setLastReset(const QString& v) { m_lastReset = v; }
    QString getDescription() const { return m_description; }
    void setDescription(const QString& v) { m_description = v; }

    // The adapter's object in the "NetworkAdapter" array.
    QJsonObject toJson() const;

private:
    QString m_name;
    QString m_macAddress;
    QString m_serviceName;
    QString m_manufacture;
    QString m_networkAddress;
    bool m_installed = false;
    bool m_physical = false;
    QString m_speed;
    QString m_lastReset;
    QString m_description;
};
