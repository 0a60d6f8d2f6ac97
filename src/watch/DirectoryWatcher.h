#pragma once

#include "watch/ChangeWatcher.h"
#include "watch/InotifyWatcher.h"

#include <QList>
#include <QPointer>
#include <QSet>
#include <QStringList>

#include <functional>
#include <map>

class QTimer;

// Watches the directories a report reads, through the shared inotify
// instance. A location that does not exist (yet) is watched through its
// nearest existing parent, so its creation is seen; symlinks are never
// followed out of a location, and network or automounted file systems are
// left alone (an automount point is not even triggered).
class DirectoryWatcher : public ChangeWatcher
{
    Q_OBJECT
public:
    struct Target {
        QString path;
        QStringList names; // entries that count; empty: every entry
    };
    using Targets = std::function<QList<Target>()>;

    DirectoryWatcher(InotifyWatcher* inotify, int task, const QString& what, Targets targets,
                     QObject* parent = nullptr);
    ~DirectoryWatcher() override;

    bool start() override;

    // Where a path stands: a plain local directory all the way down; absent
    // (missing, a file, or a symlink somewhere on the way), with the deepest
    // plain directory and the name below it that is missing; or remote.
    enum class Place { Directory, Absent, Remote };
    struct Inspection {
        Place place = Place::Absent;
        QString nearest;
        QString child;
    };
    static Inspection inspect(const QString& path);

    // Subdirectories of dir (no symlinks), sorted, at most limit of them.
    static QStringList subdirectories(const QString& dir, int limit, bool* truncated = nullptr);

    // Watches one watcher may hold (thousands of homes stop here).
    static constexpr int kMaxWatches = 4096;

    int watchCount() const { return static_cast<int>(m_watches.size()); }
    QStringList watchedPaths() const;

    // The directories the start-up applications report reads, below root.
    static QList<Target> startupTargets(const QString& root);
    static QList<Target> firewallTargets(const QString& root);
    static QList<Target> softwareTargets(const QString& root);

private:
    struct Watch {
        QString path;
        bool target = false;
        QStringList names;
    };

    void rearm();
    void scheduleRearm();
    void onEvent(int wd, uint32_t mask, const QString& name);

    QPointer<InotifyWatcher> m_inotify; // may go first when both are children of one owner
    QString m_what;
    Targets m_targets;
    std::map<int, Watch> m_watches;
    QTimer* m_rearmTimer;
    int m_overflowId = 0;
    QSet<QString> m_reported; // said once each in the trace log
};
