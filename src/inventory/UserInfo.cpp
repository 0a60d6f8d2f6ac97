#include "inventory/UserInfo.h"

QJsonObject UserInfo::toJson() const
{
    QJsonObject o;
    o.insert(QStringLiteral("UserID"), m_userId);
    o.insert(QStringLiteral("GroupID"), m_groupId);
    o.insert(QStringLiteral("Name"), m_name);
    o.insert(QStringLiteral("FullName"), m_fullName);
    o.insert(QStringLiteral("Privileges"), m_privileges);
    o.insert(QStringLiteral("PasswordChagedOn"), m_passwordChangedOn);
    o.insert(QStringLiteral("PasswordAge"), m_passwordAge);
    o.insert(QStringLiteral("HomeDirPath"), m_homeDirPath);
    o.insert(QStringLiteral("Disabled"), m_disabled);
    o.insert(QStringLiteral("PasswordExpires"), m_passwordExpires);
    o.insert(QStringLiteral("PasswordRequired"), m_passwordRequired);
    o.insert(QStringLiteral("PasswordChangeable"), m_passwordChangeable);
    o.insert(QStringLiteral("PasswordExpired"), m_passwordExpired);
    o.insert(QStringLiteral("LastLogon"), m_lastLogon);
    return o;
}
