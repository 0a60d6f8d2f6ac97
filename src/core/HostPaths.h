#pragma once

#include <QByteArray>
#include <QString>

// Every host file is reached through these roots so collectors can be pointed
// at fixture trees: procfs (default /proc), sysfs (default /sys) and the root
// file system (default /, for /etc, /home, /var/lib/dpkg, /usr/share/misc).
class HostPaths
{
public:
    HostPaths();
    HostPaths(const QString& procRoot, const QString& sysRoot, const QString& rootFs);

    // A tree laid out as DIR/proc, DIR/sys and DIR itself as root.
    static HostPaths fromFixtureRoot(const QString& dir);

    QString procRoot() const { return m_proc; }
    QString sysRoot() const { return m_sys; }
    QString rootFs() const { return m_root; }

    // rel may start with '/' or not: proc("1/comm") == proc("/1/comm") == "/proc/1/comm".
    QString proc(const QString& rel) const;
    QString sys(const QString& rel) const;
    QString root(const QString& absolute) const;

    // Reads to EOF (procfs and sysfs report wrong sizes) and stops at maxBytes.
    // nullopt-like: ok is false when the file cannot be opened or read.
    static QByteArray readFile(const QString& path, bool* ok = nullptr, qint64 maxBytes = 16 * 1024 * 1024);

    // For files a user may have put in place (anything under a home folder):
    // only a regular file on a disk is opened, a symbolic link being followed.
    // A FIFO would block the open for ever, a device node may act on being
    // opened, and files of the kernel's own file systems (/proc/kmsg) may
    // block or be consumed by reading: those are NotRegular, never opened.
    enum class FileRead { Read, Unreadable, NotRegular };
    static FileRead readRegularFile(const QString& path, QByteArray& data, qint64 maxBytes);

private:
    static QString join(const QString& base, const QString& rel);
    // Reads fd to EOF or maxBytes; false on a read error.
    static bool readAll(int fd, qint64 maxBytes, QByteArray& data);
    QString m_proc, m_sys, m_root;
};
