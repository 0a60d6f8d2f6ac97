#include "inventory/NetworkAdapterInfo.h"

#include <QFile>
#include <QHostAddress>
#include <QNetworkInterface>
#include <QRegularExpression>

namespace
{

const QString kNA = QStringLiteral("NA");

// Calls fn(line) for each line of text until it returns true.
template <typename Fn> void forEachLine(const QByteArray& text, Fn fn)
{
    int start = 0;
    while (start < text.size()) {
        int end = text.indexOf('\n', start);
        if (end < 0)
            end = text.size();
        if (fn(QByteArray::fromRawData(text.constData() + start, end - start)))
            return;
        start = end + 1;
    }
}

QStringList wordsOf(const QByteArray& line)
{
    static const QRegularExpression blanks(QStringLiteral("\\s+"));
    return QString::fromUtf8(line).split(blanks, Qt::SkipEmptyParts);
}

} // namespace

NetworkAdapterInfo::NetworkAdapterInfo() = default;

NetworkAdapterInfo::NetworkAdapterInfo(const HostPaths& host, InterfaceSource source)
    : m_host(host), m_source(std::move(source))
{
}

QList<NetworkAdapterInfo::InterfaceEntry> NetworkAdapterInfo::systemInterfaces()
{
    QList<InterfaceEntry> out;
    const QList<QNetworkInterface> all = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface& iface : all) {
        InterfaceEntry e;
        e.name = iface.name();
        e.humanReadableName = iface.humanReadableName();
        e.hardwareAddress = iface.hardwareAddress();
        const QNetworkInterface::InterfaceFlags flags = iface.flags();
        e.up = flags.testFlag(QNetworkInterface::IsUp);
        e.running = flags.testFlag(QNetworkInterface::IsRunning);
        e.loopback = flags.testFlag(QNetworkInterface::IsLoopBack);
        const QList<QNetworkAddressEntry> entries = iface.addressEntries();
        for (const QNetworkAddressEntry& entry : entries)
            e.addresses << entry.ip().toString();
        out << e;
    }
    return out;
}

QList<NetworkAdapter> NetworkAdapterInfo::getNetworkAdapterInfo()
{
    QList<NetworkAdapter> adapters;
    const QList<InterfaceEntry> interfaces = m_source ? m_source() : systemInterfaces();
    for (const InterfaceEntry& e : interfaces) {
        if (!e.up || !e.running)
            continue;
        NetworkAdapter a;
        a.setName(e.humanReadableName);
        a.setMacAddress(e.hardwareAddress);
        a.setServiceName(e.name);
        a.setManufacture(getAdapterManufacturer(e.name));
        a.setNetworkAddress(joinAddresses(e.addresses));
        // Both flags follow the loopback test; the server reads them that way.
        a.setInstalled(e.loopback);
        a.setPhysical(e.loopback);
        a.setSpeed(getAdapterSpeed(e.name));
        a.setLastReset(getTimeOfLastReset(e.name));
        a.setDescription(e.humanReadableName);
        adapters << a;
    }
    return adapters;
}

bool NetworkAdapterInfo::getNetworkAdapterInfo(QJsonArray& out)
{
    const QList<NetworkAdapter> adapters = getNetworkAdapterInfo();
    for (const NetworkAdapter& a : adapters)
        out.append(a.toJson());
    return !out.isEmpty();
}

QString NetworkAdapterInfo::joinAddresses(const QStringList& addresses)
{
    return addresses.join(QStringLiteral(", "));
}

QString NetworkAdapterInfo::getNetworkAddressesOfQNetworkInterface(const QList<QNetworkAddressEntry>& entries)
{
    QStringList texts;
    for (const QNetworkAddressEntry& entry : entries)
        texts << entry.ip().toString();
    return joinAddresses(texts);
}

QString NetworkAdapterInfo::sysfsId(const QByteArray& fileText)
{
    int eol = fileText.indexOf('\n');
    QString id = QString::fromLatin1(eol >= 0 ? fileText.left(eol) : fileText).trimmed();
    const int x = id.indexOf(QLatin1Char('x'));
    if (x >= 0)
        id = id.mid(x + 1);
    return id;
}

QString NetworkAdapterInfo::speedText(const QByteArray& fileText)
{
    const int eol = fileText.indexOf('\n');
    bool ok = false;
    const qint64 mbits =
        QString::fromLatin1(eol >= 0 ? fileText.left(eol) : fileText).trimmed().toInt(&ok, 10);
    return QString::number(ok ? mbits * 1000 : 0);
}

QString NetworkAdapterInfo::findVendorName(const QByteArray& pciIds, const QString& vendorId)
{
    const QByteArray prefix = vendorId.toUtf8();
    QString found;
    forEachLine(pciIds, [&](const QByteArray& line) {
        if (!line.startsWith(prefix))
            return false;
        const QStringList words = wordsOf(line);
        if (words.size() < 2)
            return false;
        found = words.mid(1).join(QLatin1Char(' '));
        return true;
    });
    return found.isNull() ? QString::fromLatin1(kUnknownVendor) : found;
}

QString NetworkAdapterInfo::findDeviceName(const QByteArray& pciIds, const QString& vendorId,
                                           const QString& deviceId)
{
    const QByteArray prefix =
        (vendorId + QLatin1Char(' ') + deviceId.rightJustified(4, QLatin1Char('0'))).toUtf8();
    QString found;
    forEachLine(pciIds, [&](const QByteArray& line) {
        if (!line.startsWith(prefix))
            return false;
        found = wordsOf(line).mid(1).join(QLatin1Char(' '));
        return true;
    });
    return found.isNull() ? QString::fromLatin1(kUnknownVendor) : found;
}

QByteArray NetworkAdapterInfo::pciIds(bool* ok)
{
    return HostPaths::readFile(m_host.root(QStringLiteral("/usr/share/misc/pci.ids")), ok);
}

QString NetworkAdapterInfo::getVendorName(const QString& vendorId)
{
    bool ok = false;
    const QByteArray db = pciIds(&ok);
    return ok ? findVendorName(db, vendorId) : QString::fromLatin1(kUnknownVendor);
}

QString NetworkAdapterInfo::getDeviceName(const QString& vendorId, const QString& deviceId)
{
    bool ok = false;
    const QByteArray db = pciIds(&ok);
    return ok ? findDeviceName(db, vendorId, deviceId) : QString::fromLatin1(kUnknownVendor);
}

QString NetworkAdapterInfo::getAdapterManufacturer(const QString& interfaceName)
{
    const QString dir = m_host.sys(QStringLiteral("class/net/") + interfaceName + QStringLiteral("/device/"));
    bool vendorOk = false;
    bool deviceOk = false;
    const QByteArray vendor = HostPaths::readFile(dir + QStringLiteral("vendor"), &vendorOk, 4096);
    HostPaths::readFile(dir + QStringLiteral("device"), &deviceOk, 4096);
    // Virtual interfaces have no device directory.
    if (!vendorOk || !deviceOk)
        return kNA;
    // The device name is not part of the report, so the database is read once.
    return getVendorName(sysfsId(vendor));
}

QString NetworkAdapterInfo::getAdapterSpeed(const QString& interfaceName)
{
    QFile f(m_host.sys(QStringLiteral("class/net/") + interfaceName + QStringLiteral("/speed")));
    if (!f.open(QIODevice::ReadOnly))
        return kNA;
    // Reading fails with EINVAL while there is no link; that counts as 0.
    return speedText(f.readLine(64));
}

QString NetworkAdapterInfo::getTimeOfLastReset(const QString&)
{
    return kNA;
}
