#pragma once

#include "core/HostPaths.h"
#include "core/ToolRunner.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>

// Operating system, processors, memory devices, disks and mounted volumes of
// the hardware report.
class CHardwareInfo
{
public:
    // dmidecode and lsblk have no limit of their own: the runner's default.
    static constexpr int kTimeoutMs = ToolRunner::kDefaultTimeoutMs;

    CHardwareInfo();
    CHardwareInfo(const HostPaths& host, const ToolRunner& runner, int timeoutMs = kTimeoutMs);

    bool getOSInfoToJSON(QJsonArray& out);
    bool getCPUInfoToJSON(QJsonArray& out);
    bool getMemoryInfoToJSON(QJsonArray& out);
    bool getDiskInfoToJSON(QJsonArray& out);
    bool getPartitionInfoToJSON(QJsonArray& out);

    // Pure helpers, shared with tests and fuzz targets.
    static QJsonObject enrichProcessor(const QJsonObject& record);
    static QJsonObject enrichMemory(const QJsonObject& record);
    // Enrich every object record exactly once, keeping dmidecode's order.
    static void enrichProcessors(QJsonArray& records);
    static void enrichMemoryDevices(QJsonArray& records);
    static QString processorTypeCode(const QString& type);
    static QString leadingNumber(const QString& speed);

    // lsblk -J output of the disk and the partition listings.
    static void parseDisks(const QByteArray& json, QJsonArray& out);
    static void parsePartitions(const QByteArray& json, QJsonArray& out);

    static QStringList diskArguments();
    static QStringList partitionArguments();

private:
    QByteArray runLsblk(const QStringList& arguments, const char* origin);

    HostPaths m_host;
    ToolRunner m_runner;
    int m_timeoutMs = kTimeoutMs;
};
