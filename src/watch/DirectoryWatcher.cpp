#include "watch/DirectoryWatcher.h"

#include "core/CLogger.h"
#include "core/UniqueFd.h"
#include "watch/InotifyWatcher.h"

#include <QFile>
#include <QHash>
#include <QTimer>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/vfs.h>

namespace
{
constexpr uint32_t kMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB |
                           IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW | IN_EXCL_UNLINK;
constexpr uint32_t kGone = IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT;

bool isRemote(const QByteArray& path)
{
    // O_PATH without O_DIRECTORY does not trigger an automount.
    const UniqueFd fd(::open(path.constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct statfs fs {
    };
    if (!fd || ::fstatfs(fd.get(), &fs) != 0)
        return false;
    switch (static_cast<unsigned long>(fs.f_type)) {
    case 0x6969UL:     // NFS
    case 0x0187UL:     // autofs
    case 0xFF534D42UL: // CIFS
    case 0xFE534D42UL: // SMB2
    case 0x517BUL:     // SMB
    case 0x65735546UL: // FUSE (sshfs and the like)
    case 0x73757245UL: // Coda
        return true;
    default:
        return false;
    }
}

QString joined(const QString& dir, const QString& name)
{
    return dir.endsWith(QLatin1Char('/')) ? dir + name : dir + QLatin1Char('/') + name;
}
} // namespace

DirectoryWatcher::DirectoryWatcher(InotifyWatcher* inotify, int task, const QString& what, Targets targets,
                                   QObject* parent)
    : ChangeWatcher(task, parent), m_inotify(inotify), m_what(what), m_targets(std::move(targets)),
      m_rearmTimer(new QTimer(this))
{
    m_rearmTimer->setSingleShot(true);
    m_rearmTimer->setInterval(0);
    connect(m_rearmTimer, &QTimer::timeout, this, &DirectoryWatcher::rearm);
}

DirectoryWatcher::~DirectoryWatcher()
{
    if (m_inotify) {
        for (const auto& w : m_watches)
            m_inotify->remove(w.first);
        if (m_overflowId)
            m_inotify->removeOverflowHandler(m_overflowId);
    }
}

bool DirectoryWatcher::start()
{
    if (!m_inotify || !m_inotify->isOpen())
        return false;
    if (!m_overflowId)
        m_overflowId = m_inotify->addOverflowHandler([this] {
            notifyChanged(QStringLiteral("change queue overflowed"));
            scheduleRearm();
        });
    rearm();
    return !m_watches.empty();
}

DirectoryWatcher::Inspection DirectoryWatcher::inspect(const QString& path)
{
    Inspection result;
    result.nearest = QStringLiteral("/");
    QString current;
    const QStringList parts = path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    for (const QString& part : parts) {
        const QString next = current + QLatin1Char('/') + part;
        const QByteArray encoded = QFile::encodeName(next);
        struct stat st {
        };
        if (part == QLatin1String("..") ||
            ::fstatat(AT_FDCWD, encoded.constData(), &st, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) != 0 ||
            !S_ISDIR(st.st_mode)) {
            result.place = Place::Absent;
            result.child = part;
            return result;
        }
        if (isRemote(encoded)) {
            result.place = Place::Remote;
            result.child = part;
            return result;
        }
        current = next;
        result.nearest = current;
    }
    result.place = Place::Directory;
    result.nearest = current.isEmpty() ? QStringLiteral("/") : current;
    return result;
}

QStringList DirectoryWatcher::subdirectories(const QString& dir, int limit, bool* truncated)
{
    QStringList out;
    if (truncated)
        *truncated = false;
    const QByteArray encoded = QFile::encodeName(dir);
    const UniqueFd fd(::open(encoded.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd)
        return out;
    DIR* d = ::fdopendir(::dup(fd.get()));
    if (!d)
        return out;
    while (const dirent* e = ::readdir(d)) {
        const QByteArray name(e->d_name);
        if (name == "." || name == "..")
            continue;
        bool isDir = e->d_type == DT_DIR;
        if (e->d_type == DT_UNKNOWN) {
            struct stat st {
            };
            isDir = ::fstatat(fd.get(), e->d_name, &st, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) == 0 &&
                    S_ISDIR(st.st_mode);
        }
        if (!isDir)
            continue;
        if (out.size() >= limit) {
            if (truncated)
                *truncated = true;
            break;
        }
        out << QFile::decodeName(name);
    }
    ::closedir(d);
    std::sort(out.begin(), out.end());
    return out;
}

QStringList DirectoryWatcher::watchedPaths() const
{
    QStringList out;
    for (const auto& w : m_watches)
        out << w.second.path;
    std::sort(out.begin(), out.end());
    return out;
}

void DirectoryWatcher::scheduleRearm()
{
    if (!m_rearmTimer->isActive())
        m_rearmTimer->start();
}

void DirectoryWatcher::rearm()
{
    // The wanted set, by path, in the order the targets come.
    std::vector<Watch> wanted;
    QHash<QString, size_t> index; // thousands of homes: no linear search
    auto slot = [&wanted, &index](const QString& path) -> Watch& {
        const auto it = index.constFind(path);
        if (it != index.constEnd())
            return wanted[*it];
        index.insert(path, wanted.size());
        wanted.push_back(Watch{path, false, {}});
        return wanted.back();
    };
    for (const Target& t : m_targets()) {
        const Inspection where = inspect(t.path);
        if (where.place == Place::Directory) {
            Watch& w = slot(t.path);
            // A target without names takes every entry; names only narrow.
            const bool everything = t.names.isEmpty() || (w.target && w.names.isEmpty());
            w.names = everything ? QStringList() : w.names + t.names;
            w.target = true;
        } else if (where.place == Place::Absent) {
            Watch& w = slot(where.nearest);
            if (!w.target || !w.names.isEmpty())
                w.names << where.child;
        } else if (!m_reported.contains(t.path)) {
            m_reported.insert(t.path);
            EDR_LOG->Info(Q_FUNC_INFO, "Not watching %s (network or automounted file system) for %s",
                          qUtf8Printable(t.path), qUtf8Printable(m_what));
        }
    }
    if (wanted.size() > static_cast<size_t>(kMaxWatches)) {
        if (!m_reported.contains(QStringLiteral("limit"))) {
            m_reported.insert(QStringLiteral("limit"));
            EDR_LOG->Info(Q_FUNC_INFO, "Watching %d of %d directories for %s; the rest keep the schedule",
                          kMaxWatches, static_cast<int>(wanted.size()), qUtf8Printable(m_what));
        }
        wanted.resize(static_cast<size_t>(kMaxWatches));
    }

    // Drop what is no longer wanted, keep what is, add the rest.
    std::vector<bool> kept(wanted.size(), false);
    for (auto it = m_watches.begin(); it != m_watches.end();) {
        const auto keep = index.constFind(it->second.path);
        if (keep == index.constEnd() || *keep >= wanted.size()) {
            m_inotify->remove(it->first);
            it = m_watches.erase(it);
        } else {
            it->second = wanted[*keep];
            kept[*keep] = true;
            ++it;
        }
    }
    for (size_t i = 0; i < wanted.size(); ++i) {
        if (kept[i])
            continue;
        const Watch& w = wanted[i];
        const int wd = m_inotify->add(
            w.path, kMask, [this](const InotifyWatcher::Event& e) { onEvent(e.wd, e.mask, e.name); });
        if (wd >= 0) {
            // The same inode under two paths (a bind mount) keeps one watch.
            m_watches[wd] = w;
        } else if (!m_reported.contains(w.path)) {
            m_reported.insert(w.path);
            EDR_LOG->Info(Q_FUNC_INFO, "Cannot watch %s for %s (errno %d: %s)", qUtf8Printable(w.path),
                          qUtf8Printable(m_what), errno, std::strerror(errno));
        }
    }
}

void DirectoryWatcher::onEvent(int wd, uint32_t mask, const QString& name)
{
    const auto it = m_watches.find(wd);
    if (it == m_watches.end())
        return;
    const Watch w = it->second;
    if (mask & kGone) {
        if (mask & IN_IGNORED)
            m_watches.erase(wd);
        if (w.target)
            notifyChanged(m_what);
        scheduleRearm();
        return;
    }
    if (w.target && w.names.isEmpty()) {
        notifyChanged(m_what);
        if (mask & IN_ISDIR)
            scheduleRearm();
        return;
    }
    if (!w.names.contains(name))
        return;
    notifyChanged(m_what);
    if (!w.target || (mask & IN_ISDIR))
        scheduleRearm();
}

QList<DirectoryWatcher::Target> DirectoryWatcher::startupTargets(const QString& root)
{
    const QString etc = joined(root, QStringLiteral("etc"));
    QList<Target> out{{etc + QStringLiteral("/xdg/autostart"), {}},
                      {etc + QStringLiteral("/systemd/user"), {}}};
    for (const QString& sub : subdirectories(etc + QStringLiteral("/systemd/user"), 256))
        out.append({etc + QStringLiteral("/systemd/user/") + sub, {}});
    const QString home = joined(root, QStringLiteral("home"));
    out.append({home, {}});
    if (inspect(home).place == Place::Directory) {
        for (const QString& user : subdirectories(home, kMaxWatches)) {
            const QString dir = home + QLatin1Char('/') + user;
            // A home on a network or automounted file system is never looked into.
            if (inspect(dir).place == Place::Remote)
                continue;
            out.append({dir + QStringLiteral("/.config/autostart"), {}});
        }
    }
    return out;
}

QList<DirectoryWatcher::Target> DirectoryWatcher::firewallTargets(const QString& root)
{
    const QString etc = joined(root, QStringLiteral("etc"));
    return {{etc + QStringLiteral("/ufw"), {}}, {etc + QStringLiteral("/default"), {QStringLiteral("ufw")}}};
}

QList<DirectoryWatcher::Target> DirectoryWatcher::softwareTargets(const QString& root)
{
    const QString lib = joined(root, QStringLiteral("var/lib"));
    // dpkg replaces status by rename and closes lock-frontend when a run ends;
    // flatpak touches .changed after every transaction.
    return {{lib + QStringLiteral("/dpkg"), {QStringLiteral("status"), QStringLiteral("lock-frontend")}},
            {lib + QStringLiteral("/snapd/snaps"), {}},
            {lib + QStringLiteral("/flatpak"), {QStringLiteral(".changed")}}};
}
