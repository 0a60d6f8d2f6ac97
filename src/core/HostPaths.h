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

private:
    static QString join(const QString& base, const QString& rel);
    QString m_proc, m_sys, m_root;
};
