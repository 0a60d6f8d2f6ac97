#pragma once

#include "core/HostPaths.h"
#include "core/UniqueFd.h"

#include <QByteArray>
#include <QString>

// Small readers that turn a process id into what the reports show of it, from
// the per-process files under the proc root. They keep no state beyond where
// that root is, so tests point them at fixture trees.
class ProcessInfo
{
public:
    explicit ProcessInfo(const HostPaths& host = HostPaths());

    // First line of "comm" as read, line feed kept; "Unknown" when it cannot be opened.
    QString getProcessNameByPID(int pid) const;
    // Target of the "exe" link; a null string when there is none.
    QString getProcessPathByPID(int pid) const;
    // "cmdline" up to its first NUL, i.e. the program as invoked; "Unknown" when
    // it cannot be opened.
    QString getProcessCommandLineByPID(int pid) const;
    // Whole "status" file; ok is false when it cannot be opened.
    QByteArray readStatusFile(int pid, bool* ok) const;

    // Pure conversions of what the readers fetch.
    // Bytes up to and including the first line feed, cut at the first NUL.
    static QString firstLineText(const QByteArray& bytes);

    const HostPaths& host() const { return m_host; }

private:
    UniqueFd openProcFile(int pid, const char* leaf) const;
    // Reads up to and including the first NUL (or line feed), EOF or the cap.
    static QByteArray readUntil(int fd, bool stopAtLineFeed, qint64 cap);

    HostPaths m_host;
    QByteArray m_procPrefix; // encoded proc root with a trailing '/'
};
