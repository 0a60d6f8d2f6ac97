#pragma once

#include "core/HostPaths.h"
#include "core/ToolRunner.h"
#include "core/UniqueFd.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QVector>

// The installed-software report: every package dpkg's status database holds
// as installed, dated by its file list, followed by the snaps and flatpak
// applications their own tools list.
class InstallSoftManager
{
public:
    // One installed package as read from its stanza; a later line with the
    // same field overwrites.
    struct Package {
        QString name;
        QString version;
        QString description;
        QString size;   // Installed-Size as size text
        QString vendor; // Original-Maintainer
        QString architecture;
        bool multiArchSame = false; // "Multi-Arch: same": its list is name:arch.list
        bool hasPackageLine = false;
        bool hasVersion = false;
        bool hasDescription = false;
        bool hasSize = false;
        bool hasVendor = false;

        // The package's report object; installDate is added when the stanza
        // named a package.
        QJsonObject toJson(const QString& installDate = QString()) const;
    };

    static InstallSoftManager* getInstance();
    static void releaseInstance();

    explicit InstallSoftManager(const HostPaths& host = HostPaths(), const ToolRunner& runner = ToolRunner());

    bool getInstalledSoftwares(QJsonObject& report);
    // The body sendRptToServer posts: {"InstallSoft": [...]}.
    bool collectReport(QJsonObject& body);
    bool sendRptToServer(const QString& parameter);

    // Pure: stanzas whose Status has "installed" as its third word, in file order.
    static QVector<Package> parseDpkgStatus(const QByteArray& status);
    // "yyyyMMdd" of the package's file list, or empty when there is none.
    QString installDate(const Package& package) const;

    static constexpr qint64 kMaxStatusBytes = 256 * 1024 * 1024;

private:
    UniqueFd openInfoDir() const;
    QString installDate(const Package& package, int infoDir) const;

    static InstallSoftManager* s_instance;
    bool m_reportBusy = false;
    HostPaths m_host;
    ToolRunner m_runner;
};
