#include "core/EdrAgentConfig.h"

#include "core/CLogger.h"
#include "core/Common.h"
#include "core/UniqueFd.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QMutexLocker>
#include <QSettings>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
// QSettings already serialises access to one file inside the process; this lock
// keeps read-modify-write sequences of different EdrAgentConfig objects whole.
QMutex g_configMutex;

QString valueToText(const QVariant& v)
{
    // An unquoted value with commas comes back from INI parsing as a list.
    if (v.type() == QVariant::StringList)
        return v.toStringList().join(QLatin1Char(','));
    return v.toString();
}
} // namespace

EdrAgentConfig::EdrAgentConfig() = default;

QString EdrAgentConfig::path() const
{
    return m_path.isEmpty() ? Common::getEdrDirPath() + QStringLiteral("/agent.conf") : m_path;
}

EdrAgentConfig::EdrAgentConfig(const QString& path) : m_path(path) {}

QVariant EdrAgentConfig::read(const QString& key) const
{
    QMutexLocker lock(&g_configMutex);
    QSettings settings(path(), QSettings::IniFormat);
    return settings.value(key);
}

bool EdrAgentConfig::write(const QString& key, const QString& value)
{
    QMutexLocker lock(&g_configMutex);
    const QString file = path();
    QFileInfo info(file);
    QDir().mkpath(info.absolutePath());
    // Create the file 0600 before QSettings writes it: QSaveFile then keeps that
    // mode when it renames its temporary copy over the file.
    if (!info.exists())
        UniqueFd(::open(QFile::encodeName(file).constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    QSettings settings(file, QSettings::IniFormat);
    settings.setAtomicSyncRequired(true);
    settings.setValue(key, value);
    settings.sync();
    ::chmod(QFile::encodeName(file).constData(), 0600);
    if (settings.status() != QSettings::NoError) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Failed to write %s to %s", qUtf8Printable(key),
                       qUtf8Printable(file));
        return false;
    }
    return true;
}

bool EdrAgentConfig::isMalformed() const
{
    QMutexLocker lock(&g_configMutex);
    if (!QFileInfo::exists(path()))
        return false;
    QSettings settings(path(), QSettings::IniFormat);
    return settings.status() == QSettings::FormatError;
}

QString EdrAgentConfig::getAuthCode() const
{
    return getSetting(QStringLiteral("AuthCode"));
}

bool EdrAgentConfig::setAuthCode(const QString& code)
{
    return write(QStringLiteral("AuthCode"), code);
}

QString EdrAgentConfig::getSetting(const QString& key, const QString& defaultValue) const
{
    const QVariant v = read(key);
    return v.isValid() ? valueToText(v) : defaultValue;
}

bool EdrAgentConfig::setSetting(const QString& key, const QString& value)
{
    return write(key, value);
}

QDateTime EdrAgentConfig::getTaskLastRunTime(const QString& scheduleName) const
{
    const QVariant v = read(QStringLiteral("TaskLastRun/") + scheduleName);
    if (!v.isValid())
        return QDateTime();
    return QDateTime::fromString(valueToText(v), Qt::ISODate);
}

bool EdrAgentConfig::setTaskLastRunTime(const QString& scheduleName, const QDateTime& when)
{
    return write(QStringLiteral("TaskLastRun/") + scheduleName, when.toString(Qt::ISODate));
}

bool EdrAgentConfig::onOff(const char* key, bool fallback) const
{
    const QString name = QStringLiteral("Changes/") + QLatin1String(key);
    const QString text = getSetting(name).trimmed();
    if (text.isEmpty())
        return fallback;
    if (text.compare(QLatin1String("on"), Qt::CaseInsensitive) == 0)
        return true;
    if (text.compare(QLatin1String("off"), Qt::CaseInsensitive) == 0)
        return false;
    EDR_LOG->Error(Q_FUNC_INFO, EINVAL, "%s '%s' in agent.conf is neither on nor off; using %s",
                   qUtf8Printable(name), qUtf8Printable(text), fallback ? "on" : "off");
    return fallback;
}

bool EdrAgentConfig::earlyReports() const
{
    return onOff("EarlyReports", true);
}

bool EdrAgentConfig::skipUnchanged() const
{
    return onOff("SkipUnchanged", false);
}

int EdrAgentConfig::maxSilenceMinutes() const
{
    constexpr int kMost = 525600; // a year
    const QString text = getSetting(QStringLiteral("Changes/MaxSilenceMinutes")).trimmed();
    if (text.isEmpty())
        return kDefaultMaxSilenceMinutes;
    bool ok = false;
    const int value = text.toInt(&ok);
    if (ok && value >= 1 && value <= kMost)
        return value;
    EDR_LOG->Error(Q_FUNC_INFO, EINVAL,
                   "Changes/MaxSilenceMinutes '%s' in agent.conf is not a number from 1 to %d; using %d",
                   qUtf8Printable(text), kMost, kDefaultMaxSilenceMinutes);
    return kDefaultMaxSilenceMinutes;
}
