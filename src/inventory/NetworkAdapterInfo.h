#pragma once

#include "core/HostPaths.h"
#include "inventory/NetworkAdapter.h"

#include <QByteArray>
#include <QJsonArray>
#include <QList>
#include <QNetworkAddressEntry>
#include <QString>
#include <QStringList>

#include <functional>

// Lists the active network interfaces with their maker (PCI vendor from sysfs
// and the PCI id database) and link speed.
class NetworkAdapterInfo
{
public:
    // What the adapter list needs of one interface; filled from
    // QNetworkInterface on a live system, by hand in tests.
    struct InterfaceEntry {
        QString name; // kernel name, e.g. eth0
        QString humanReadableName;
        QString hardwareAddress;
        bool up = false;
        bool running = false;
        bool loopback = false;
        QStringList addresses; // QHostAddress::toString() of each entry
    };
    using InterfaceSource = std::function<QList<InterfaceEntry>()>;

    NetworkAdapterInfo();
    explicit NetworkAdapterInfo(const HostPaths& host, InterfaceSource source = InterfaceSource());

    QList<NetworkAdapter> getNetworkAdapterInfo();
    bool getNetworkAdapterInfo(QJsonArray& out);

    QString getNetworkAddressesOfQNetworkInterface(const QList<QNetworkAddressEntry>& entries);
    QString getVendorName(const QString& vendorId);
    QString getDeviceName(const QString& vendorId, const QString& deviceId);
    QString getAdapterManufacturer(const QString& interfaceName);
    QString getAdapterSpeed(const QString& interfaceName);
    QString getTimeOfLastReset(const QString& interfaceName);

    static QList<InterfaceEntry> systemInterfaces();

    // Pure helpers over text.
    static QString joinAddresses(const QStringList& addresses);
    static QString findVendorName(const QByteArray& pciIds, const QString& vendorId);
    static QString findDeviceName(const QByteArray& pciIds, const QString& vendorId, const QString& deviceId);
    static QString sysfsId(const QByteArray& fileText);   // "0x8086\n" -> "8086"
    static QString speedText(const QByteArray& fileText); // Mb/s -> kb/s as text

    static constexpr const char* kUnknownVendor = "Unknown Vendor";

private:
    QByteArray pciIds(bool* ok);

    HostPaths m_host;
    InterfaceSource m_source;
};
