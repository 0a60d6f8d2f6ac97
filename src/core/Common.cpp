#include "core/Common.h"

#include <QMutex>
#include <QMutexLocker>

#include <atomic>
#include <cmath>
#include <cstdlib>

namespace
{
QMutex g_mutex;
QString g_prefix;
std::atomic<double> g_scale{-1.0};

double readScale()
{
    const char* env = std::getenv("EDR_AGENT_TIME_SCALE");
    if (!env || !*env)
        return 1.0;
    char* end = nullptr;
    double v = std::strtod(env, &end);
    if (end == env || !std::isfinite(v) || v <= 0.0 || v > 1000.0)
        return 1.0;
    return v;
}
} // namespace

void Common::setPrefix(const QString& prefix)
{
    QMutexLocker lock(&g_mutex);
    g_prefix = prefix;
    while (g_prefix.endsWith(QLatin1Char('/')))
        g_prefix.chop(1);
}

QString Common::prefix()
{
    QMutexLocker lock(&g_mutex);
    return g_prefix;
}

QString Common::getRootPath()
{
    return prefix() + QStringLiteral("/opt/edr-agent");
}

QString Common::getEdrDirPath()
{
    return prefix() + QStringLiteral("/var/lib/edr-agent");
}

QString Common::getReportsPath()
{
    return getEdrDirPath() + QStringLiteral("/reports");
}

QString Common::getSettingsPath()
{
    return prefix() + QStringLiteral("/etc/edr-agent");
}

QString Common::getBuildVersion()
{
    return QStringLiteral(EDR_BUILD_VERSION);
}

double Common::timeScale()
{
    double v = g_scale.load();
    if (v < 0) {
        v = readScale();
        g_scale.store(v);
    }
    return v;
}

int Common::scaledMs(qint64 ms)
{
    double v = std::llround(static_cast<double>(ms) * timeScale());
    if (v < 1)
        return ms > 0 ? 1 : 0;
    if (v > 2147483647.0)
        return 2147483647;
    return static_cast<int>(v);
}

void Common::setTimeScaleForTesting(double scale)
{
    g_scale.store(scale);
}
