#pragma once

#include "core/HostPaths.h"
#include "core/ToolRunner.h"

#include <QJsonArray>

#include <optional>

// Installed software that dpkg does not know: snaps and flatpak applications,
// as records of the same shape as the dpkg ones (Name, PackageName, Version,
// Size, InstallDate, Description; all text). One run of each tool, none per
// package; a missing, failing, hanging or unreadable tool adds nothing and
// leaves one Debug line.
class SnapFlatpakCollector
{
public:
    static constexpr int kToolTimeoutMs = 30000; // scaled by the agent's time scale
    static constexpr qint64 kMaxOutputBytes = 16 * 1024 * 1024;
    static constexpr qint64 kMaxSnapYamlBytes = 1024 * 1024;

    SnapFlatpakCollector(const HostPaths& host, const ToolRunner& runner);

    // Appends the snaps, then the flatpaks, each in the tool's order.
    void appendTo(QJsonArray& records) const;

    QJsonArray snapRecords() const;
    QJsonArray flatpakRecords() const;

private:
    // Output of a tool that ran and exited 0, else nullopt after a Debug line.
    std::optional<QByteArray> listOutput(const QString& tool, const QStringList& arguments) const;

    HostPaths m_host;
    ToolRunner m_runner;
};
