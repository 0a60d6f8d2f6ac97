#pragma once

#include <QDateTime>
#include <QString>
#include <QVariant>

// The agent's configuration store, agent.conf (INI) in the data directory:
// AuthCode, CorporateID, CorporateKey, LastSettingTime, LogLevel, ListenerAllow,
// and one ISO-8601 local date-time per schedule name in group TaskLastRun.
// Mode 0600; every write replaces the file atomically. Safe from several threads.
class EdrAgentConfig
{
public:
    EdrAgentConfig(); // Common::getEdrDirPath() + "/agent.conf", resolved per call
    explicit EdrAgentConfig(const QString& path);

    QString path() const;

    QString getAuthCode() const;
    bool setAuthCode(const QString& code);

    QString getSetting(const QString& key, const QString& defaultValue = QString()) const;
    bool setSetting(const QString& key, const QString& value);

    // Invalid QDateTime when the task never ran (or the stored text is not a date).
    QDateTime getTaskLastRunTime(const QString& scheduleName) const;
    bool setTaskLastRunTime(const QString& scheduleName, const QDateTime& when);

    // Group [Changes]: each read at every call; a value that is not one of the
    // key's own gives one Error line naming the key, and the default.
    bool earlyReports() const;     // EarlyReports=on|off, default on
    bool skipUnchanged() const;    // SkipUnchanged=on|off, default off
    int maxSilenceMinutes() const; // MaxSilenceMinutes=1..525600, default 1440
    static constexpr int kDefaultMaxSilenceMinutes = 1440;

    // True when the file exists but could not be parsed.
    bool isMalformed() const;

private:
    QVariant read(const QString& key) const;
    bool write(const QString& key, const QString& value);
    bool onOff(const char* key, bool fallback) const;

    QString m_path;
};
