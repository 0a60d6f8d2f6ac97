#include "core/DataDirModes.h"

#include "core/CLogger.h"
#include "core/UniqueFd.h"

#include <QDirIterator>
#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
// Opens without following a link, so a swapped-in link cannot redirect the
// change; 1 when changed, 0 when already right or not ours to change.
int restrict(const QString& path, bool directory)
{
    const int flags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | (directory ? O_DIRECTORY : 0);
    const UniqueFd fd(::open(QFile::encodeName(path).constData(), flags));
    if (!fd)
        return 0;
    struct stat st {
    };
    int changed = 0;
    const mode_t wanted = directory ? 0700 : 0600;
    if (::fstat(fd.get(), &st) == 0 && (S_ISDIR(st.st_mode) || S_ISREG(st.st_mode)) &&
        (st.st_mode & 07777) != wanted) {
        if (::fchmod(fd.get(), wanted) == 0) {
            EDR_LOG->Info(Q_FUNC_INFO, "Mode of %s changed from %04o to %04o", qUtf8Printable(path),
                          static_cast<unsigned>(st.st_mode & 07777), static_cast<unsigned>(wanted));
            changed = 1;
        } else {
            EDR_LOG->Error(Q_FUNC_INFO, errno, "Cannot change the mode of %s", qUtf8Printable(path));
        }
    }
    return changed;
}
} // namespace

int DataDirModes::tighten(const QString& dir)
{
    int changed = restrict(dir, true);
    QDirIterator it(dir, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        if (info.isSymLink())
            continue;
        changed += restrict(info.filePath(), info.isDir());
    }
    return changed;
}
