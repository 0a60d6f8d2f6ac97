#include "inventory/CHardwareInfo.h"

#include "core/CLogger.h"
#include "core/SystemInformation.h"
#include "identity/SizeOperation.h"
#include "inventory/CDmiInfo.h"

#include <QJsonDocument>
#include <QJsonValue>
#include <QSysInfo>

#include <cerrno>

CHardwareInfo::CHardwareInfo() = default;

CHardwareInfo::CHardwareInfo(const HostPaths& host, const ToolRunner& runner, int timeoutMs)
    : m_host(host), m_runner(runner), m_timeoutMs(timeoutMs)
{
}

bool CHardwareInfo::getOSInfoToJSON(QJsonArray& out)
{
    try {
        QJsonObject os;
        os.insert(QStringLiteral("Caption"), QSysInfo::prettyProductName());
        os.insert(QStringLiteral("Manufacturer"), QSysInfo::productType());
        os.insert(QStringLiteral("OSArchitecture"), QSysInfo::currentCpuArchitecture());
        QString bootId;
        SystemInformation::bootUniqueId(bootId, m_host);
        os.insert(QStringLiteral("SerialNumber"), bootId);
        os.insert(QStringLiteral("Version"), QSysInfo::productVersion());
        out.append(os);
        return true;
    } catch (...) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "CATCHED");
        return false;
    }
}

QString CHardwareInfo::processorTypeCode(const QString& type)
{
    if (type == QLatin1String("Central Processor"))
        return QStringLiteral("3");
    if (type == QLatin1String("Math Processor"))
        return QStringLiteral("4");
    if (type == QLatin1String("DSP Processor"))
        return QStringLiteral("5");
    if (type == QLatin1String("Video Processor"))
        return QStringLiteral("6");
    if (type == QLatin1String("Unknown"))
        return QStringLiteral("2");
    return QStringLiteral("1");
}

QString CHardwareInfo::leadingNumber(const QString& speed)
{
    const int space = speed.indexOf(QLatin1Char(' '));
    return space >= 0 ? speed.left(space) : speed;
}

namespace
{

// Sets to[toKey] from from[fromKey], converted, when that value is a string;
// from and to may be the same object. Returns whether it did.
template <typename Convert>
bool copyString(const QJsonObject& from, const char* fromKey, QJsonObject& to, const char* toKey,
                Convert convert)
{
    const QJsonValue v = from.value(QLatin1String(fromKey));
    if (!v.isString())
        return false;
    to.insert(QLatin1String(toKey), convert(v.toString()));
    return true;
}

QString same(const QString& s)
{
    return s;
}

} // namespace

QJsonObject CHardwareInfo::enrichProcessor(const QJsonObject& source)
{
    QJsonObject r = source;
    copyString(r, "ID", r, "ProcessorId", same);
    copyString(r, "Type", r, "ProcessorType", processorTypeCode);
    copyString(r, "Part Number", r, "PartNumber", same);
    copyString(r, "Version", r, "Name", same);
    copyString(r, "Max Speed", r, "MaxClockSpeed", leadingNumber);
    copyString(r, "Current Speed", r, "CurrentClockSpeed", leadingNumber);
    copyString(r, "Core Count", r, "NumberOfCores", same);
    copyString(r, "Thread Count", r, "ThreadCount", same);
    return r;
}

QJsonObject CHardwareInfo::enrichMemory(const QJsonObject& source)
{
    QJsonObject r = source;
    r.insert(QStringLiteral("Name"), QStringLiteral("Physical Memory"));
    copyString(r, "Size", r, "Capacity",
               [](const QString& s) { return QString::number(SizeOperation::getStringSizeInBytes(s)); });
    copyString(r, "Serial Number", r, "SerialNumber", same);
    copyString(r, "Part Number", r, "PartNumber", same);
    return r;
}

// One pass, one enrichment per record: a record that lacks the key which
// would mark it as done (an empty memory slot has no serial) must not keep
// the walk going.
void CHardwareInfo::enrichProcessors(QJsonArray& records)
{
    for (int i = 0; i < records.size(); ++i)
        if (records.at(i).isObject())
            records.replace(i, enrichProcessor(records.at(i).toObject()));
}

void CHardwareInfo::enrichMemoryDevices(QJsonArray& records)
{
    for (int i = 0; i < records.size(); ++i)
        if (records.at(i).isObject())
            records.replace(i, enrichMemory(records.at(i).toObject()));
}

bool CHardwareInfo::getCPUInfoToJSON(QJsonArray& out)
{
    CDmiInfo dmi(m_runner, m_timeoutMs);
    const bool ok = dmi.getDataToJSON(out, QStringLiteral("processor"));
    enrichProcessors(out);
    return ok;
}

bool CHardwareInfo::getMemoryInfoToJSON(QJsonArray& out)
{
    CDmiInfo dmi(m_runner, m_timeoutMs);
    const bool ok = dmi.getDataToJSON(out, QStringLiteral("memory"));
    enrichMemoryDevices(out);
    return ok;
}

QStringList CHardwareInfo::diskArguments()
{
    return {QStringLiteral("--output"), QStringLiteral("MODEL,SIZE,TYPE,SERIAL,PATH"), QStringLiteral("-J"),
            QStringLiteral("-e"), QStringLiteral("7")};
}

QStringList CHardwareInfo::partitionArguments()
{
    return {QStringLiteral("--output"),
            QStringLiteral("FSSIZE,FSAVAIL,NAME,UUID,FSTYPE,TYPE,HOTPLUG,MOUNTPOINT,LABEL,STATE"),
            QStringLiteral("-J"), QStringLiteral("-e"), QStringLiteral("7")};
}

QByteArray CHardwareInfo::runLsblk(const QStringList& arguments, const char* origin)
{
    const ToolResult r = m_runner.run(QStringLiteral("lsblk"), arguments, m_timeoutMs);
    if (!r.started || r.timedOut || r.crashed) {
        EDR_LOG->Debug(origin, "lsblk did not complete: %s",
                       r.timedOut ? "timed out" : qUtf8Printable(r.errorText));
        return QByteArray();
    }
    return r.standardOutput;
}

namespace
{

QString bytesText(const QString& size)
{
    return QString::number(SizeOperation::getStringSizeInBytes(size));
}

QJsonArray blockDevices(const QByteArray& json)
{
    const QJsonDocument doc = QJsonDocument::fromJson(json);
    if (!doc.isObject())
        return QJsonArray();
    return doc.object().value(QStringLiteral("blockdevices")).toArray();
}

} // namespace

void CHardwareInfo::parseDisks(const QByteArray& json, QJsonArray& out)
{
    const QJsonArray devices = blockDevices(json);
    for (const QJsonValue& device : devices) {
        if (!device.isObject())
            continue;
        QJsonObject disk = device.toObject();
        // lsblk writes null for a disk without a model (virtual disks, zram).
        if (!disk.value(QStringLiteral("model")).isString())
            continue;
        // lsblk's keys give way to the report's.
        if (copyString(disk, "model", disk, "Model", same))
            disk.remove(QStringLiteral("model"));
        if (copyString(disk, "size", disk, "Size", bytesText))
            disk.remove(QStringLiteral("size"));
        if (copyString(disk, "serial", disk, "SerialNumber", same))
            disk.remove(QStringLiteral("serial"));
        if (copyString(disk, "path", disk, "Name", same))
            disk.remove(QStringLiteral("path"));
        out.append(disk);
    }
}

void CHardwareInfo::parsePartitions(const QByteArray& json, QJsonArray& out)
{
    const QJsonArray devices = blockDevices(json);
    QString diskName;
    for (const QJsonValue& device : devices) {
        const QJsonObject disk = device.toObject();
        const QJsonValue children = disk.value(QStringLiteral("children"));
        if (!device.isObject() || !children.isArray())
            continue;
        const QJsonValue name = disk.value(QStringLiteral("name"));
        if (name.isString())
            diskName = name.toString();
        // Only the first level: logical volumes below a partition are not volumes here.
        const QJsonArray parts = children.toArray();
        for (const QJsonValue& child : parts) {
            if (!child.isObject())
                continue;
            const QJsonObject part = child.toObject();
            const QJsonValue mount = part.value(QStringLiteral("mountpoint"));
            if (!mount.isString())
                continue;
            QJsonObject volume;
            volume.insert(QStringLiteral("DiskName"), diskName);
            volume.insert(QStringLiteral("Name"), mount.toString());
            volume.insert(QStringLiteral("DriveLetter"), mount.toString());
            copyString(part, "fssize", volume, "Capacity", bytesText);
            copyString(part, "fsavail", volume, "FreeSpace", bytesText);
            copyString(part, "uuid", volume, "SerialNumber", same);
            copyString(part, "fstype", volume, "FileSystem", same);
            copyString(part, "label", volume, "Label", same);
            // Keyed on the label, not the hot-plug column: lsblk never writes a
            // boolean label, so the key stays out: what the server is used to.
            const QJsonValue label = part.value(QStringLiteral("label"));
            if (label.isBool())
                volume.insert(QStringLiteral("DriveType"), label.toBool() ? 2 : 3);
            out.append(volume);
        }
    }
}

bool CHardwareInfo::getDiskInfoToJSON(QJsonArray& out)
{
    try {
        parseDisks(runLsblk(diskArguments(), Q_FUNC_INFO), out);
    } catch (...) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "CATCHED");
        return false;
    }
    return !out.isEmpty();
}

bool CHardwareInfo::getPartitionInfoToJSON(QJsonArray& out)
{
    try {
        parsePartitions(runLsblk(partitionArguments(), Q_FUNC_INFO), out);
    } catch (...) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "CATCHED");
        return false;
    }
    return !out.isEmpty();
}
