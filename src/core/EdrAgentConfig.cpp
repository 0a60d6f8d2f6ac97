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
