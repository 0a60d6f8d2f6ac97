#pragma once

#include "core/HostPaths.h"
#include "core/ToolRunner.h"
#include "inventory/UserInfo.h"

#include <QByteArray>
#include <QDate>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QString>

// Local user accounts and current login sessions for the hardware report.
// Accounts are read from the account files directly (passwd, shadow, group,
// login.defs) so no tool runs per user; "who" and "last" each run once.
class UsersAccountManager
{
public:
    static UsersAccountManager* getInstance();
    static void releaseInstance();

    explicit UsersAccountManager(const HostPaths& host = HostPaths(),
                                 const ToolRunner& runner = ToolRunner());

    // Login names of the current sessions, joined with "|".
    QString getCurrentLoginUsers();
    // Inserts "Users"; false when /etc/passwd could not be read.
    bool getUsersAccountInfo(QJsonObject& report);
    QList<UserInfo> getUsersAccounts(bool* ok = nullptr);

    // The password ages are counted up to this UTC day; invalid means today's.
    void setToday(const QDate& today) { m_today = today; }
    // Limit for each of who and last.
    void setTimeoutMs(int ms) { m_timeoutMs = ms; }

    struct AccountFiles {
        QByteArray passwd;
        QByteArray shadow;
        QByteArray group;
        QByteArray loginDefs;
        QByteArray last; // output of last -w --time-format iso
    };
    // Pure: the listed accounts, in /etc/passwd order.
    static QList<UserInfo> parseAccounts(const AccountFiles& files, const QDate& today);
    static QString parseWhoOutput(const QByteArray& output);
    // Newest login per user, "yyyy-MM-dd hh:mm:ss" as last printed it.
    static QHash<QString, QString> parseLastLogons(const QByteArray& output);

    static constexpr int kTimeoutMs = 30000;

private:
    static UsersAccountManager* s_instance;
    HostPaths m_host;
    ToolRunner m_runner;
    QDate m_today;
    int m_timeoutMs = kTimeoutMs;
};
