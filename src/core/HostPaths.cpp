#include "core/HostPaths.h"

#include "core/UniqueFd.h"

#include <QFile>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
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

namespace
{
int openRetrying(const char* path, int flags)
{
    int fd;
    do {
        fd = ::open(path, flags);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// File systems whose "regular" files are the kernel talking: reading one may
// wait for events or take them away from whoever else reads them.
bool onKernelFileSystem(int fd)
{
    struct statfs fs;
    if (::fstatfs(fd, &fs) != 0)
        return true;
    switch (static_cast<unsigned long>(fs.f_type)) {
    case PROC_SUPER_MAGIC:
    case SYSFS_MAGIC:
    case DEBUGFS_MAGIC:
    case TRACEFS_MAGIC:
    case SECURITYFS_MAGIC:
        return true;
    default:
        return false;
    }
}
} // namespace

bool HostPaths::readAll(int fd, qint64 maxBytes, QByteArray& data)
{
    // A large file (the dpkg status database) is given its room at once
    // rather than regrown chunk by chunk; /proc and /sys report sizes that
    // mean nothing, but their files are small.
    struct stat st;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 65536)
        data.reserve(static_cast<int>(qMin<qint64>(qMin<qint64>(st.st_size + 1, maxBytes), INT_MAX)));
    char buf[65536];
    while (data.size() < maxBytes) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (n == 0)
            break;
        data.append(buf, static_cast<int>(qMin<qint64>(n, maxBytes - data.size())));
    }
    return true;
}

QByteArray HostPaths::readFile(const QString& path, bool* ok, qint64 maxBytes)
{
    if (ok)
        *ok = false;
    const UniqueFd fd(openRetrying(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC));
    if (!fd)
        return QByteArray();
    QByteArray data;
    const bool read = readAll(fd.get(), maxBytes, data);
    if (ok)
        *ok = read;
    return data;
}

HostPaths::FileRead HostPaths::readRegularFile(const QString& path, QByteArray& data, qint64 maxBytes)
{
    data.clear();
    const QByteArray local = QFile::encodeName(path);
    // O_PATH follows the link to the inode without opening it (no driver or
    // FIFO sees an open), so the type is checked on the very file that is
    // then opened, not on whatever a rename put in its place since a stat().
    const UniqueFd anchor(openRetrying(local.constData(), O_PATH | O_CLOEXEC));
    struct stat before;
    if (!anchor || ::fstat(anchor.get(), &before) != 0)
        return FileRead::Unreadable;
    if (!S_ISREG(before.st_mode) || onKernelFileSystem(anchor.get()))
        return FileRead::NotRegular;

    const int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    char self[48];
    std::snprintf(self, sizeof self, "/proc/self/fd/%d", anchor.get());
    UniqueFd fd(openRetrying(self, flags));
    if (!fd && errno == ENOENT) // no procfs mounted: the path once more, checked below
        fd.reset(openRetrying(local.constData(), flags));
    struct stat after;
    if (!fd || ::fstat(fd.get(), &after) != 0)
        return FileRead::Unreadable;
    if (!S_ISREG(after.st_mode) || after.st_dev != before.st_dev || after.st_ino != before.st_ino)
        return FileRead::NotRegular;
    return readAll(fd.get(), maxBytes, data) ? FileRead::Read : FileRead::Unreadable;
}
