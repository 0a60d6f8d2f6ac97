#pragma once

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

    // Appends whole lines; false when the file cannot be opened or written.
    bool append(const QByteArray& data, Position* where = nullptr);
    // Flushes what was appended to the disk.
    void sync();
    void close();

    // write(2) until everything is out or a real error (EINTR retried).
    static bool writeAll(int fd, const char* data, size_t len);

private:
    bool ensureOpen();
    void rotate();

    QString m_path;
    int m_fd = -1;
    qint64 m_size = 0;
    qint64 m_maxBytes = 10 * 1024 * 1024;
    int m_keptFiles = 3;
};
