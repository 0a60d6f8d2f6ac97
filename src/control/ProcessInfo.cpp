#include "control/ProcessInfo.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
// Nothing the kernel writes into these files comes near this; fixture trees
// and odd processes must not make the agent grow without bound.
constexpr qint64 kLineCap = 4 * 1024 * 1024;
constexpr qint64 kStatusCap = 1024 * 1024;

const QString kUnknown = QStringLiteral("Unknown");
} // namespace

ProcessInfo::ProcessInfo(const HostPaths& host) : m_host(host)
{
    m_procPrefix = QFile::encodeName(m_host.proc(QString()));
    if (!m_procPrefix.endsWith('/'))
        m_procPrefix.append('/');
}

UniqueFd ProcessInfo::openProcFile(int pid, const char* leaf) const
{
    // Built on the stack: this runs three times per process in the report.
    char path[PATH_MAX];
    const int n = std::snprintf(path, sizeof path, "%s%d/%s", m_procPrefix.constData(), pid, leaf);
    if (n < 0 || n >= static_cast<int>(sizeof path))
        return UniqueFd();
    int fd;
    do {
        fd = ::open(path, O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    return UniqueFd(fd);
}

QByteArray ProcessInfo::readUntil(int fd, bool stopAtLineFeed, qint64 cap)
{
    // Every caller cuts the text at its first NUL, so reading stops there too.
    QByteArray out;
    char buf[4096];
    while (out.size() < cap) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            break; // a process that vanished mid-read gives what was read
        }
        if (n == 0)
            break;
        const size_t take = static_cast<size_t>(qMin<qint64>(n, cap - out.size()));
        const char* stop = static_cast<const char*>(std::memchr(buf, '\0', take));
        if (stopAtLineFeed) {
            const char* lf =
                static_cast<const char*>(std::memchr(buf, '\n', stop ? size_t(stop - buf) : take));
            if (lf)
                stop = lf;
        }
        if (stop) {
            out.append(buf, static_cast<int>(stop - buf) + 1);
            break;
        }
        out.append(buf, static_cast<int>(take));
    }
    return out;
}

QString ProcessInfo::firstLineText(const QByteArray& bytes)
{
    int end = bytes.size();
    const int lf = bytes.indexOf('\n');
    if (lf >= 0)
        end = lf + 1;
    const int nul = bytes.indexOf('\0');
    if (nul >= 0 && nul < end)
        end = nul;
    return QString::fromUtf8(bytes.constData(), end);
}

QString ProcessInfo::getProcessNameByPID(int pid) const
{
    const UniqueFd fd = openProcFile(pid, "comm");
    if (!fd)
        return kUnknown;
    return firstLineText(readUntil(fd.get(), true, kLineCap));
}

QString ProcessInfo::getProcessCommandLineByPID(int pid) const
{
    const UniqueFd fd = openProcFile(pid, "cmdline");
    if (!fd)
        return kUnknown;
    // One line, cut at the first NUL: only the first argument survives.
    return firstLineText(readUntil(fd.get(), true, kLineCap));
}

QByteArray ProcessInfo::readStatusFile(int pid, bool* ok) const
{
    *ok = false;
    const UniqueFd fd = openProcFile(pid, "status");
    if (!fd)
        return QByteArray();
    *ok = true;
    return readUntil(fd.get(), false, kStatusCap);
}

QString ProcessInfo::getProcessPathByPID(int pid) const
{
    char path[PATH_MAX];
    const int n = std::snprintf(path, sizeof path, "%s%d/exe", m_procPrefix.constData(), pid);
    if (n < 0 || n >= static_cast<int>(sizeof path))
        return QString();
    char target[PATH_MAX];
    const ssize_t len = ::readlink(path, target, sizeof target);
    if (len <= 0 || len >= static_cast<ssize_t>(sizeof target))
        return QString();
    QString result = QFile::decodeName(QByteArray(target, static_cast<int>(len)));
    // A relative target (only seen in fixture trees) is read from the link's folder.
    if (!result.startsWith(QLatin1Char('/')))
        result = m_host.proc(QString::number(pid)) + QLatin1Char('/') + result;
    return QDir::cleanPath(result);
}
