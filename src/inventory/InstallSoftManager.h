#pragma once

#include "core/HostPaths.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QVector>

// The installed-software report: every package dpkg's status database holds
// as installed, dated by its file list.
class InstallSoftManager {
public:
    // One installed package as read from its stanza. object holds every key
    // but "InstallDate", which needs the file system.
    struct Package {
        QString name; // the last "Package" value
        QString architecture;
        bool hasPackageLine = false;
        QJsonObject object;
    };

    static InstallSoftManager* getInstance();
    static void releaseInstance();

    explicit InstallSoftManager(const HostPaths& host = HostPaths());

    bool getInstalledSoftwares(QJsonObject& report);
    // The body sendRptToServer posts: {"InstallSoft": [...]}.
    bool collectReport(QJsonObject& body);
    bool sendRptToServer(const QString& parameter);

    // Pure: stanzas whose Status is "install ok installed", in file order.
    static QVector<Package> parseDpkgStatus(const QByteArray& status);
    // "yyyyMMdd" of the package's file list, or empty when there is none.
    QString installDate(const Package& package) const;

    static constexpr qint64 kMaxStatusBytes = 256 * 1024 * 1024;

private:
    static InstallSoftManager* s_instance;
    bool m_reportBusy = false;
    HostPaths m_host;
};
