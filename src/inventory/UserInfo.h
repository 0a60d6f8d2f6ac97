#pragma once

#include <QJsonObject>
#include <QString>

// One local account as the hardware report's "Users" array lists it. Every
// value is text, as the server reads it.
class UserInfo
{
public:
    QString getUserID() const { return m_userId; }
    void setUserID(const QString& v) { m_userId = v; }
    QString getGroupID() const { return m_groupId; }
    void setGroupID(const QString& v) { m_groupId = v; }
    QString getName() const { return m_name; }
    void setName(const QString& v) { m_name = v; }
    QString getFullName() const { return m_fullName; }
    void setFullName(const QString& v) { m_fullName = v; }
    QString getPrivileges() const { return m_privileges; }
    void setPrivileges(const QString& v) { m_privileges = v; }
    QString getPasswordChagedOn() const { return m_passwordChangedOn; }
    void setPasswordChagedOn(const QString& v) { m_passwordChangedOn = v; }
    QString getPasswordAge() const { return m_passwordAge; }
    void setPasswordAge(const QString& v) { m_passwordAge = v; }
    QString getHomeDirPath() const { return m_homeDirPath; }
    void setHomeDirPath(const QString& v) { m_homeDirPath = v; }
    QString getDisabled() const { return m_disabled; }
    void setDisabled(const QString& v) { m_disabled = v; }
    QString getPasswordExpires() const { return m_passwordExpires; }
    void setPasswordExpires(const QString& v) { m_passwordExpires = v; }
    QString getPasswordRequired() const { return m_passwordRequired; }
    void setPasswordRequired(const QString& v) { m_passwordRequired = v; }
    QString getPasswordChangeable() const { return m_passwordChangeable; }
    void setPasswordChangeable(const QString& v) { m_passwordChangeable = v; }
    QString getPasswordExpired() const { return m_passwordExpired; }
    void setPasswordExpired(const QString& v) { m_passwordExpired = v; }
    QString getLastLogon() const { return m_lastLogon; }
    void setLastLogon(const QString& v) { m_lastLogon = v; }

    QJsonObject toJson() const;

private:
    QString m_userId;
    QString m_groupId;
    QString m_name;
    QString m_fullName;
    QString m_privileges;
    QString m_passwordChangedOn;
    QString m_passwordAge;
    QString m_homeDirPath;
    QString m_disabled;
    QString m_passwordExpires;
    QString m_passwordRequired;
    QString m_passwordChangeable;
    QString m_passwordExpired;
    QString m_lastLogon;
};
