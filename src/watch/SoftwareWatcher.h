#pragma once

#include "watch/DirectoryWatcher.h"

// Packages installed, removed or upgraded by dpkg/apt, snap or flatpak. While
// dpkg's frontend lock is held the database is mid-change, so nothing is
// reported: the lock is only tested (F_OFD_GETLK), never taken.
class SoftwareWatcher : public DirectoryWatcher
{
    Q_OBJECT
public:
    SoftwareWatcher(InotifyWatcher* inotify, int task, const QString& root, QObject* parent = nullptr);

    bool holdsBack() const override;

    // True when some process holds a lock on the file (false when it is missing).
    static bool isLocked(const QString& path);

private:
    QString m_lockFile;
};
