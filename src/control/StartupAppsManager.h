#pragma once

#include "core/HostPaths.h"

#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QString>
#include <QStringList>

#include <optional>

// Lists what starts with a user session (XDG autostart entries and systemd
// user units), reports it, and answers the server's enable/disable orders.
class StartupAppsManager
{
public:
    static StartupAppsManager* getInstance();
    static void releaseInstance();

    explicit StartupAppsManager(const HostPaths& host = HostPaths());

    QStringList getListOfUsers();
    static bool hasDesktopFileExtension(const QString& file);
    static bool hasServiceFileExtension(const QString& file);
    bool parseDesktopFile(const QString& path, QString& name, QString& command, QString& description);
    bool parseServiceFile(const QString& path, QString& name, QString& command, QString& description);
    bool getStartupApps(QJsonObject& report);
    bool enableStartupTask(const QString& first, const QString& second, bool enable);

    bool collectReport(QJsonObject& body);
    bool sendRptToServer(const QString& arg);
    // Not permitted: nothing runs and the failure result is posted.
    bool executeSendReportToServer(const QString& parameter, bool permitted = true);

    // The parsers over a file's text; name and command as the report shows them.
    static bool parseDesktopText(const QByteArray& text, QString& name, QString& command);
    static bool parseServiceText(const QByteArray& text, QString& command, QString& description);

    // Keys of one [group] of an INI-style text (desktop entries, unit files).
    // Lines are trimmed; '#' and ';' lines are comments; a repeated key keeps
    // its last value; values are taken verbatim (quotes and commas included).
    static QMap<QString, QString> iniGroup(const QByteArray& text, const QString& group);

    // "action|first[|second]|id": any field count is accepted; the identifier
    // is only known for three or four fields.
    struct Order {
        bool enable = false;
        QString first;
        QString second;
        std::optional<QString> id;
    };
    static Order parseOrder(const QString& parameter);

    // Start-up files are small; anything past this is not read.
    static constexpr qint64 kMaxEntryFileBytes = 1024 * 1024;
    // A desktop has a few dozen; a folder a user fills with links to large
    // files must not keep the report reading for hours.
    static constexpr int kMaxEntriesPerFolder = 500;

private:
    // The ".desktop" and ".service" files of a folder, in name order, at
    // most kMaxEntriesPerFolder of them.
    static QStringList listEntryFiles(const QString& dir);

    static StartupAppsManager* s_instance;

    HostPaths m_host;
    bool m_reportBusy = false;
    bool m_actionBusy = false;
};
