#include "core/AuditLog.h"

#include "core/CLogger.h"
#include "core/Common.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutexLocker>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

AuditLog* AuditLog::s_instance = nullptr;

namespace
{
QMutex g_instanceMutex;

// Every outcome fits this width, so a pending line can be completed in place.
constexpr int kOutcomeWidth = 12;

QString isoWithOffset(const QDateTime& when)
{
    const int offset = when.offsetFromUtc();
    const int minutes = (offset < 0 ? -offset : offset) / 60;
    return when.toString(QStringLiteral("yyyy-MM-ddThh:mm:ss.zzz")) + QLatin1Char(offset < 0 ? '-' : '+') +
           QStringLiteral("%1:%2")
               .arg(minutes / 60, 2, 10, QLatin1Char('0'))
               .arg(minutes % 60, 2, 10, QLatin1Char('0'));
}

// At most kMaxCommandBytes of UTF-8, cut on a character boundary.
QString cutCommand(const QString& command, bool* cut)
{
    const QByteArray utf8 = command.toUtf8();
    *cut = utf8.size() > AuditLog::kMaxCommandBytes;
    if (!*cut)
        return command;
    int n = AuditLog::kMaxCommandBytes;
    while (n > 0 && (static_cast<unsigned char>(utf8.at(n)) & 0xC0) == 0x80)
        --n;
    return QString::fromUtf8(utf8.constData(), n);
}
} // namespace

AuditLog* AuditLog::getInstance()
{
    QMutexLocker lock(&g_instanceMutex);
    if (!s_instance)
        s_instance = new AuditLog();
    return s_instance;
}

void AuditLog::releaseInstance()
{
    QMutexLocker lock(&g_instanceMutex);
    delete s_instance;
    s_instance = nullptr;
}

AuditLog::AuditLog() = default;

void AuditLog::setFilePath(const QString& path)
{
    QMutexLocker lock(&m_mutex);
    m_path = path;
    m_warned = false;
}

QString AuditLog::filePath() const
{
    QMutexLocker lock(&m_mutex);
    return currentPath();
}

QString AuditLog::currentPath() const
{
    return m_path.isEmpty() ? Common::getEdrDirPath() + QStringLiteral("/audit.log") : m_path;
}

void AuditLog::setRotation(qint64 maxBytes, int keptFiles)
{
    QMutexLocker lock(&m_mutex);
    m_file.setRotation(maxBytes, keptFiles);
}

const char* AuditLog::outcomeName(Outcome outcome)
{
    switch (outcome) {
    case Pending:
        return "pending";
    case Done:
        return "done";
    case Failed:
        return "failed";
    case Denied:
        return "denied";
    case RefusedPeer:
        return "refused-peer";
    case Malformed:
        return "malformed";
    }
    return "pending";
}

QByteArray AuditLog::recordHead(const QDateTime& when, Channel channel, const QString& peer,
                                const QString& command, std::optional<int> task)
{
    bool cut = false;
    QJsonObject record{
        {QStringLiteral("time"), isoWithOffset(when)},
        {QStringLiteral("channel"), channel == Push ? QStringLiteral("push") : QStringLiteral("listener")},
        {QStringLiteral("peer"), peer},
        {QStringLiteral("command"), cutCommand(command, &cut)},
        {QStringLiteral("task"), task ? QJsonValue(*task) : QJsonValue(QJsonValue::Null)},
    };
    if (cut)
        record.insert(QStringLiteral("truncated"), true);
    QByteArray head = QJsonDocument(record).toJson(QJsonDocument::Compact);
    head.chop(1); // the closing brace; the outcome goes last
    return head;
}

QByteArray AuditLog::recordTail(Outcome outcome)
{
    QByteArray tail = QByteArrayLiteral(",\"outcome\":\"") + outcomeName(outcome) + '"';
    tail += QByteArray(kOutcomeWidth - static_cast<int>(std::strlen(outcomeName(outcome))), ' ');
    tail += "}\n";
    return tail;
}

bool AuditLog::write(const QByteArray& line, RotatingFile::Position* where)
{
    const QString path = currentPath();
    if (m_file.path() != path)
        m_file.setPath(path);
    if (m_file.append(line, where)) {
        m_file.sync();
        return true;
    }
    if (!m_warned) {
        m_warned = true;
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Cannot write the audit log %s", qUtf8Printable(m_file.path()));
    }
    return false;
}

void AuditLog::record(Channel channel, const QString& peer, const QString& command, std::optional<int> task,
                      Outcome outcome)
{
    const QByteArray line =
        recordHead(QDateTime::currentDateTime(), channel, peer, command, task) + recordTail(outcome);
    QMutexLocker lock(&m_mutex);
    write(line, nullptr);
}

AuditLog::Entry AuditLog::begin(Channel channel, const QString& peer, const QString& command,
                                std::optional<int> task)
{
    Entry entry;
    entry.line = recordHead(QDateTime::currentDateTime(), channel, peer, command, task);
    QMutexLocker lock(&m_mutex);
    entry.written = write(entry.line + recordTail(Pending), &entry.position);
    return entry;
}

// Overwrites the pending outcome when the line is still in the file it went
// to; after a rotation or a deletion the finished record is appended instead.
void AuditLog::finish(const Entry& entry, Outcome outcome)
{
    const QByteArray tail = recordTail(outcome);
    QMutexLocker lock(&m_mutex);
    if (entry.written) {
        const int fd =
            ::open(QFile::encodeName(currentPath()).constData(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
        struct stat st {
        };
        bool patched = false;
        if (fd >= 0 && ::fstat(fd, &st) == 0 && st.st_dev == entry.position.device &&
            st.st_ino == entry.position.inode &&
            st.st_size >= entry.position.offset + entry.line.size() + tail.size()) {
            const off_t at = static_cast<off_t>(entry.position.offset + entry.line.size());
            patched = ::pwrite(fd, tail.constData(), static_cast<size_t>(tail.size()), at) == tail.size();
            if (patched)
                ::fdatasync(fd);
        }
        if (fd >= 0)
            ::close(fd);
        if (patched)
            return;
    }
    write(entry.line + tail, nullptr);
}
