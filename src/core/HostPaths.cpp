#include "core/HostPaths.h"

#include <QFile>

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

HostPaths::HostPaths()
    : m_proc(QStringLiteral("/proc")), m_sys(QStringLiteral("/sys")), m_root(QStringLiteral("/"))
{
}

HostPaths::HostPaths(const QString& procRoot, const QString& sysRoot, const QString& rootFs)
    : m_proc(procRoot), m_sys(sysRoot), m_root(rootFs)
{
}

HostPaths HostPaths::fromFixtureRoot(const QString& dir)
{
    QString base = dir;
    while (base.size() > 1 && base.endsWith(QLatin1Char('/')))
        base.chop(1);
    return HostPaths(base + QStringLiteral("/proc"), base + QStringLiteral("/sys"), base);
}

QString HostPaths::join(const QString& base, const QString& rel)
{
    QString b = base;
    while (b.size() > 1 && b.endsWith(QLatin1Char('/')))
        b.chop(1);
    QString r = rel;
    while (r.startsWith(QLatin1Char('/')))
        r.remove(0, 1);
    if (r.isEmpty())
        return b;
    if (b == QLatin1String("/"))
        return b + r;
    return b + QLatin1Char('/') + r;
}

QString HostPaths::proc(const QString& rel) const
{
    return join(m_proc, rel);
}

QString HostPaths::sys(const QString& rel) const
{
    return join(m_sys, rel);
}

QString HostPaths::root(const QString& absolute) const
{
    return join(m_root, absolute);
}

QByteArray HostPaths::readFile(const QString& path, bool* ok, qint64 maxBytes)
{
    if (ok)
        *ok = false;
    int fd;
    do {
        fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0)
        return QByteArray();
    QByteArray data;
    // A large file (the dpkg status database) is given its room at once
    // rather than regrown chunk by chunk; /proc and /sys report sizes that
    // mean nothing, but their files are small.
    struct stat st;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 65536)
        data.reserve(static_cast<int>(qMin<qint64>(qMin<qint64>(st.st_size + 1, maxBytes), INT_MAX)));
    char buf[65536];
    bool failed = false;
    while (data.size() < maxBytes) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            failed = true;
            break;
        }
        if (n == 0)
            break;
        data.append(buf, static_cast<int>(qMin<qint64>(n, maxBytes - data.size())));
    }
    ::close(fd);
    if (ok)
        *ok = !failed;
    return data;
}
