#include "inventory/UsersAccountManager.h"

#include "core/CLogger.h"

#include <QDateTime>
#include <QJsonArray>
#include <QRegularExpression>
#include <QStringList>

#include <cerrno>

UsersAccountManager* UsersAccountManager::s_instance = nullptr;

UsersAccountManager* UsersAccountManager::getInstance()
{
    if (!s_instance)
        s_instance = new UsersAccountManager();
    return s_instance;
}

void UsersAccountManager::releaseInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

UsersAccountManager::UsersAccountManager(const HostPaths& host, const ToolRunner& runner)
    : m_host(host), m_runner(runner)
{
}

namespace
{

const QRegularExpression& blanks()
{
    static const QRegularExpression re(QStringLiteral("\\s+"));
    return re;
}

QStringList linesOf(const QByteArray& text)
{
    return QString::fromUtf8(text).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

constexpr qint64 kUnset = -1;

// A day count of the shadow file; empty or out of range is unset.
qint64 dayCount(const QString& field)
{
    bool ok = false;
    const qint64 v = field.toLongLong(&ok, 10);
    if (!ok || v < 0 || v > 10000000)
        return kUnset;
    return v;
}

QString flag(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

// The range of ordinary login accounts; the shadow-utils defaults apply
// when login.defs does not say.
void loginUidRange(const QByteArray& loginDefs, uint* min, uint* max)
{
    *min = 1000;
    *max = 60000;
    const QStringList lines = linesOf(loginDefs);
    for (const QString& line : lines) {
        const QStringList words = line.trimmed().split(blanks(), Qt::SkipEmptyParts);
        if (words.size() < 2)
            continue;
        bool ok = false;
        const uint value = words.at(1).toUInt(&ok, 10);
        if (!ok)
            continue;
        if (words.at(0) == QLatin1String("UID_MIN"))
            *min = value;
        else if (words.at(0) == QLatin1String("UID_MAX"))
            *max = value;
    }
}

struct GroupEntry {
    QString name;
    QString gid;
    QStringList members;
};

} // namespace

QString UsersAccountManager::parseWhoOutput(const QByteArray& output)
{
    QStringList names;
    const QStringList lines = linesOf(output);
    // Every non-empty line gives a name, a line of blanks an empty one.
    for (const QString& line : lines)
        names << line.trimmed().split(blanks(), Qt::SkipEmptyParts).value(0);
    return names.join(QLatin1Char('|'));
}

QHash<QString, QString> UsersAccountManager::parseLastLogons(const QByteArray& output)
{
    QHash<QString, QString> newest;
    const QStringList lines = linesOf(output);
    for (const QString& line : lines) {
        const QStringList words = line.split(blanks(), Qt::SkipEmptyParts);
        if (words.size() < 2)
            continue;
        const QString& user = words.at(0);
        if (user == QLatin1String("reboot") || user == QLatin1String("shutdown") ||
            user == QLatin1String("wtmp") || user == QLatin1String("btmp") || newest.contains(user))
            continue;
        // The login time is the first word that reads as an ISO date-time;
        // the terminal and host columns may be empty.
        for (int i = 1; i < words.size(); ++i) {
            const QString& w = words.at(i);
            if (w.size() < 19 || w.at(10) != QLatin1Char('T'))
                continue;
            const QDateTime when = QDateTime::fromString(w, Qt::ISODate);
            if (when.isValid()) {
                newest.insert(user, when.toString(QStringLiteral("yyyy-MM-dd hh:mm:ss")));
                break;
            }
        }
    }
    return newest;
}

QList<UserInfo> UsersAccountManager::parseAccounts(const AccountFiles& files, const QDate& today)
{
    uint uidMin = 0;
    uint uidMax = 0;
    loginUidRange(files.loginDefs, &uidMin, &uidMax);

    QHash<QString, QStringList> shadow;
    for (const QString& line : linesOf(files.shadow)) {
        const QStringList f = line.split(QLatin1Char(':'));
        if (f.size() >= 2 && !f.at(0).isEmpty() && !shadow.contains(f.at(0)))
            shadow.insert(f.at(0), f);
    }
    QList<GroupEntry> groups;
    for (const QString& line : linesOf(files.group)) {
        const QStringList f = line.split(QLatin1Char(':'));
        if (f.size() < 4 || f.at(0).isEmpty())
            continue;
        groups << GroupEntry{f.at(0), f.at(2), f.at(3).split(QLatin1Char(','), Qt::SkipEmptyParts)};
    }
    const QHash<QString, QString> lastLogons = parseLastLogons(files.last);
    const qint64 now = QDate(1970, 1, 1).daysTo(today);

    QList<UserInfo> users;
    for (const QString& line : linesOf(files.passwd)) {
        const QStringList f = line.split(QLatin1Char(':'));
        if (f.size() != 7 || f.at(0).isEmpty())
            continue;
        bool uidOk = false;
        const uint uid = f.at(2).toUInt(&uidOk, 10);
        if (!uidOk || (uid != 0 && (uid < uidMin || uid > uidMax)))
            continue;
        const QString& name = f.at(0);
        UserInfo u;
        u.setUserID(f.at(2));
        u.setGroupID(f.at(3));
        u.setName(name);
        u.setFullName(f.at(4).section(QLatin1Char(','), 0, 0));
        u.setHomeDirPath(f.at(5));

        // What "groups NAME" would print: "NAME : primary others...".
        QStringList groupNames;
        QString primary = f.at(3);
        for (const GroupEntry& g : groups)
            if (g.gid == f.at(3)) {
                primary = g.name;
                break;
            }
        groupNames << primary;
        for (const GroupEntry& g : groups)
            if (g.members.contains(name) && !groupNames.contains(g.name))
                groupNames << g.name;
        // Only a group of exactly that name makes an administrator ("grootman" does not).
        const bool admin =
            groupNames.contains(QLatin1String("sudo")) || groupNames.contains(QLatin1String("root"));
        u.setPrivileges(admin ? QStringLiteral("2") : QStringLiteral("1"));

        const auto sp = shadow.constFind(name);
        if (sp != shadow.constEnd()) {
            const QStringList& s = sp.value();
            const QString password = s.value(1);
            const qint64 changed = dayCount(s.value(2));
            const qint64 minAge = dayCount(s.value(3));
            qint64 maxAge = dayCount(s.value(4));
            const qint64 expire = dayCount(s.value(7));
            // 99999 and above is how the tools write "never".
            if (maxAge >= 99999)
                maxAge = kUnset;
            if (changed != kUnset) {
                u.setPasswordChagedOn(
                    QDate(1970, 1, 1).addDays(changed).toString(QStringLiteral("yyyy-MM-dd")) +
                    QStringLiteral(" 00:00:00"));
                u.setPasswordAge(QString::number(qMax<qint64>(0, now - changed)));
            }
            const bool locked =
                password.startsWith(QLatin1Char('!')) || password.startsWith(QLatin1Char('*'));
            u.setDisabled(flag(locked || (expire != kUnset && now >= expire)));
            u.setPasswordExpires(flag(maxAge != kUnset));
            u.setPasswordRequired(flag(!password.isEmpty()));
            const bool tooSoon = changed > 0 && minAge != kUnset && now < changed + minAge;
            const bool neverAllowed = minAge != kUnset && maxAge != kUnset && minAge > maxAge;
            u.setPasswordChangeable(flag(!tooSoon && !neverAllowed));
            const bool forced = changed == 0;
            const bool aged = changed != kUnset && maxAge != kUnset && now > changed + maxAge;
            u.setPasswordExpired(flag(forced || aged));
        }
        u.setLastLogon(lastLogons.value(name));
        users << u;
    }
    return users;
}

QString UsersAccountManager::getCurrentLoginUsers()
{
    const ToolResult r = m_runner.run(QStringLiteral("who"), {}, m_timeoutMs);
    if (!r.finished) {
        EDR_LOG->Debug(Q_FUNC_INFO, "who did not complete: %s",
                       r.timedOut ? "timed out" : qUtf8Printable(r.errorText));
        return QString();
    }
    return parseWhoOutput(r.standardOutput);
}

QList<UserInfo> UsersAccountManager::getUsersAccounts(bool* ok)
{
    AccountFiles files;
    bool passwdOk = false;
    files.passwd = HostPaths::readFile(m_host.root(QStringLiteral("/etc/passwd")), &passwdOk);
    if (ok)
        *ok = passwdOk;
    if (!passwdOk) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Could not read %s",
                       qUtf8Printable(m_host.root(QStringLiteral("/etc/passwd"))));
        return {};
    }
    bool shadowOk = false;
    files.shadow = HostPaths::readFile(m_host.root(QStringLiteral("/etc/shadow")), &shadowOk);
    if (!shadowOk)
        EDR_LOG->Debug(Q_FUNC_INFO, "No shadow file: password fields stay empty");
    files.group = HostPaths::readFile(m_host.root(QStringLiteral("/etc/group")));
    files.loginDefs = HostPaths::readFile(m_host.root(QStringLiteral("/etc/login.defs")));
    const ToolResult last = m_runner.run(
        QStringLiteral("last"),
        {QStringLiteral("-w"), QStringLiteral("--time-format"), QStringLiteral("iso")}, m_timeoutMs);
    if (last.finished)
        files.last = last.standardOutput;
    else
        EDR_LOG->Debug(Q_FUNC_INFO, "last did not complete: %s",
                       last.timedOut ? "timed out" : qUtf8Printable(last.errorText));
    // Shadow counts days since the epoch in UTC (time / 86400), not local dates.
    return parseAccounts(files, m_today.isValid() ? m_today : QDateTime::currentDateTimeUtc().date());
}

bool UsersAccountManager::getUsersAccountInfo(QJsonObject& report)
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    bool ok = false;
    const QList<UserInfo> users = getUsersAccounts(&ok);
    QJsonArray array;
    for (const UserInfo& u : users)
        array.append(u.toJson());
    report.insert(QStringLiteral("Users"), array);
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
    return ok;
}
