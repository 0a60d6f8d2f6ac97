#include "watch/SoftwareWatcher.h"

#include "core/UniqueFd.h"

#include <QFile>

#include <fcntl.h>

SoftwareWatcher::SoftwareWatcher(InotifyWatcher* inotify, int task, const QString& root, QObject* parent)
    : DirectoryWatcher(
          inotify, task, QStringLiteral("packages changed"), [root] { return softwareTargets(root); },
          parent),
      m_lockFile((root.endsWith(QLatin1Char('/')) ? root : root + QLatin1Char('/')) +
                 QStringLiteral("var/lib/dpkg/lock-frontend"))
{
}

bool SoftwareWatcher::holdsBack() const
{
    return isLocked(m_lockFile);
}

bool SoftwareWatcher::isLocked(const QString& path)
{
    // Opened read-only: closing it raises no IN_CLOSE_WRITE of our own.
    const UniqueFd fd(
        ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd)
        return false;
    struct flock probe {
    };
    probe.l_type = F_WRLCK;
    probe.l_whence = SEEK_SET;
    probe.l_start = 0;
    probe.l_len = 0;
    if (::fcntl(fd.get(), F_OFD_GETLK, &probe) != 0)
        return false;
    return probe.l_type != F_UNLCK;
}
