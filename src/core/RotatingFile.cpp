#include "core/RotatingFile.h"

#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

bool RotatingFile::writeAll(int fd, const char* data, size_t len)
{
    while (len > 0) {
        const ssize_t n = ::write(fd, data, len);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

RotatingFile::RotatingFile(const QString& path) : m_path(path) {}

RotatingFile::~RotatingFile()
{
    close();
}

void RotatingFile::setPath(const QString& path)
{
    close();
    m_path = path;
}

void RotatingFile::setRotation(qint64 maxBytes, int keptFiles)
{
    m_maxBytes = maxBytes;
    m_keptFiles = keptFiles;
}

void RotatingFile::close()
{
    m_fd.reset();
    m_size = 0;
}

// Re-opens the file when it was deleted or replaced behind our back, so the
// next line lands in a fresh file.
bool RotatingFile::ensureOpen()
{
    const QByteArray path = QFile::encodeName(m_path);
    if (m_fd) {
        struct stat onDisk {
        }, open{};
        if (::stat(path.constData(), &onDisk) == 0 && ::fstat(m_fd.get(), &open) == 0 &&
            onDisk.st_ino == open.st_ino && onDisk.st_dev == open.st_dev)
            return true;
        close();
    }
    m_fd.reset(::open(path.constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!m_fd)
        return false;
    ::fchmod(m_fd.get(), 0600);
    struct stat st {
    };
    m_size = ::fstat(m_fd.get(), &st) == 0 ? st.st_size : 0;
    return true;
}

void RotatingFile::rotate()
{
    close();
    const QByteArray base = QFile::encodeName(m_path);
    for (int i = m_keptFiles; i >= 1; --i) {
        const QByteArray from = i == 1 ? base : base + '.' + QByteArray::number(i - 1);
        const QByteArray to = base + '.' + QByteArray::number(i);
        ::rename(from.constData(), to.constData());
    }
    if (m_keptFiles <= 0)
        ::unlink(base.constData());
}

bool RotatingFile::append(const QByteArray& data, Position* where, bool durable)
{
    if (!ensureOpen())
        return false;
    if (m_maxBytes > 0 && m_size > 0 && m_size + data.size() > m_maxBytes) {
        rotate();
        if (!ensureOpen())
            return false;
    }
    struct stat st {
    };
    if (::fstat(m_fd.get(), &st) != 0)
        return false;
    // O_APPEND writes at the end, which only this process moves.
    if (where)
        *where = {st.st_dev, st.st_ino, st.st_size};
    if (!writeAll(m_fd.get(), data.constData(), static_cast<size_t>(data.size())) ||
        (durable && ::fdatasync(m_fd.get()) != 0)) {
        // Half a line would run into the next one.
        const int err = errno;
        if (::ftruncate(m_fd.get(), st.st_size) == 0 && durable)
            ::fdatasync(m_fd.get());
        m_size = st.st_size;
        errno = err;
        return false;
    }
    m_size = st.st_size + data.size();
    return true;
}
