#pragma once

#include "core/UniqueFd.h"

#include <QByteArray>
#include <QString>

#include <sys/types.h>

// An append-only file of root's alone (0600) that is re-created when somebody
// deletes or replaces it and rotated by size (path, path.1 … path.N). Not
// thread-safe: the owner serialises calls.
class RotatingFile
{
public:
    // Where a line landed, so its owner can find it again.
    struct Position {
        dev_t device = 0;
        ino_t inode = 0;
        qint64 offset = 0;
    };

    explicit RotatingFile(const QString& path = QString());
    ~RotatingFile();
    RotatingFile(const RotatingFile&) = delete;
    RotatingFile& operator=(const RotatingFile&) = delete;

    QString path() const { return m_path; }
    void setPath(const QString& path);
    void setRotation(qint64 maxBytes, int keptFiles);
    qint64 maxBytes() const { return m_maxBytes; }

    // Appends whole lines, and with durable also flushes them to the disk;
    // false when the file cannot be opened, written or flushed. What a failed
    // append wrote is cut off again, so the next line starts clean.
    bool append(const QByteArray& data, Position* where = nullptr, bool durable = false);
    void close();

    // write(2) until everything is out or a real error (EINTR retried).
    static bool writeAll(int fd, const char* data, size_t len);

private:
    bool ensureOpen();
    void rotate();

    QString m_path;
    UniqueFd m_fd;
    qint64 m_size = 0;
    qint64 m_maxBytes = 10 * 1024 * 1024;
    int m_keptFiles = 3;
};
