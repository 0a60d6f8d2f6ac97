#include "core/AuditLog.h"

#include "core/CLogger.h"
#include "core/Common.h"
#include "core/UniqueFd.h"

#include <QFile>
#include <QMutexLocker>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

AuditLog* AuditLog::s_instance = nullptr;

namespace
{
QMutex g_instanceMutex;
thread_local OrderReport* t_orderReport = nullptr;

// Every outcome with its delivery member fits this width, so a pending line
// can be completed in place.
const int kTailWidth = static_cast<int>(std::strlen("refused-peer\",\"delivered\":false"));

// Peers counted together once the table of addresses is full.
const QString kElsewhere = QStringLiteral("*");

QString isoWithOffset(const QDateTime& when)
{
    const int offset = when.offsetFromUtc();
    const int minutes = (offset < 0 ? -offset : offset) / 60;
    return when.toString(QStringLiteral("yyyy-MM-ddThh:mm:ss.zzz")) + QLatin1Char(offset < 0 ? '-' : '+') +
           QStringLiteral("%1:%2")
               .arg(minutes / 60, 2, 10, QLatin1Char('0'))
               .arg(minutes % 60, 2, 10, QLatin1Char('0'));
}

bool continuation(unsigned char c, unsigned char low = 0x80, unsigned char high = 0xBF)
{
    return c >= low && c <= high;
}

// The length of the well-formed UTF-8 sequence at p (n bytes left), 0 when
// the byte there starts none: overlong forms, surrogates and code points past
// U+10FFFF are not UTF-8.
int sequenceLength(const unsigned char* p, int n)
{
    const unsigned char b = p[0];
    if (b < 0x80)
        return 1;
    if (b >= 0xC2 && b <= 0xDF)
        return n >= 2 && continuation(p[1]) ? 2 : 0;
    if (b >= 0xE0 && b <= 0xEF) {
        const unsigned char low = b == 0xE0 ? 0xA0 : 0x80;
        const unsigned char high = b == 0xED ? 0x9F : 0xBF;
        return n >= 3 && continuation(p[1], low, high) && continuation(p[2]) ? 3 : 0;
    }
    if (b >= 0xF0 && b <= 0xF4) {
        const unsigned char low = b == 0xF0 ? 0x90 : 0x80;
        const unsigned char high = b == 0xF4 ? 0x8F : 0xBF;
        return n >= 4 && continuation(p[1], low, high) && continuation(p[2]) && continuation(p[3]) ? 4 : 0;
    }
    return 0;
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

// Refusals still only counted get their line on the way out.
AuditLog::~AuditLog()
{
    QMutexLocker lock(&m_mutex);
    sweepRefused(now(), true);
}

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

void AuditLog::setClockForTesting(std::function<qint64()> clock)
{
    QMutexLocker lock(&m_mutex);
    m_clock = std::move(clock);
    m_nextSweepMs = 0;
}

qint64 AuditLog::now() const
{
    if (m_clock)
        return m_clock();
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
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

QByteArray AuditLog::jsonString(const QByteArray& bytes)
{
    static const char hex[] = "0123456789abcdef";
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.constData());
    const int n = bytes.size();
    QByteArray out;
    out.reserve(n + 2);
    out += '"';
    for (int i = 0; i < n;) {
        const unsigned char c = p[i];
        const int length = sequenceLength(p + i, n - i);
        if (length > 1) {
            out.append(reinterpret_cast<const char*>(p + i), length);
            i += length;
            continue;
        }
        ++i;
        if (length == 0) {
            // Never valid text, so the original byte can always be told apart.
            out += "\\udc";
            out += hex[c >> 4];
            out += hex[c & 0xF];
        } else if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7F) {
            out += "\\u00";
            out += hex[c >> 4];
            out += hex[c & 0xF];
        } else {
            out += static_cast<char>(c);
        }
    }
    out += '"';
    return out;
}

QByteArray AuditLog::recordHead(const QDateTime& when, Channel channel, const QString& peer,
                                const QByteArray& command, std::optional<int> task,
                                std::optional<quint64> count)
{
    QByteArray head = QByteArrayLiteral("{\"channel\":");
    head += channel == Push ? "\"push\"" : "\"listener\"";
    head += ",\"command\":" + jsonString(command);
    if (count)
        head += ",\"count\":" + QByteArray::number(*count);
    head += ",\"peer\":" + jsonString(peer.toUtf8());
    head += ",\"task\":" + (task ? QByteArray::number(*task) : QByteArrayLiteral("null"));
    head += ",\"time\":" + jsonString(isoWithOffset(when).toUtf8());
    return head;
}

QByteArray AuditLog::recordTail(Outcome outcome, std::optional<bool> delivered)
{
    QByteArray members = outcomeName(outcome) + QByteArrayLiteral("\"");
    if (delivered)
        members += *delivered ? ",\"delivered\":true" : ",\"delivered\":false";
    return ",\"outcome\":\"" + members + QByteArray(kTailWidth - members.size(), ' ') + "}\n";
}

bool AuditLog::write(const QByteArray& line, RotatingFile::Position* where)
{
    const QString path = currentPath();
    if (m_file.path() != path)
        m_file.setPath(path);
    RotatingFile::Position at;
    if (m_file.append(line, &at, true)) {
        m_warned = false;
        // A new file (rotated, re-created) starts a new refused-peer share.
        if (at.device != m_shareFile.device || at.inode != m_shareFile.inode) {
            m_shareFile = at;
            m_refusedBytes = 0;
        }
        if (where)
            *where = at;
        return true;
    }
    const int err = errno;
    if (!m_warned) {
        m_warned = true;
        EDR_LOG->Error(Q_FUNC_INFO, err, "Cannot write the audit log %s", qUtf8Printable(m_file.path()));
    }
    errno = err;
    return false;
}

bool AuditLog::record(Channel channel, const QString& peer, const QByteArray& command,
                      std::optional<int> task, Outcome outcome, std::optional<bool> delivered)
{
    if (outcome == RefusedPeer) {
        QMutexLocker lock(&m_mutex);
        return refusedPeer(channel, peer, command);
    }
    const QByteArray line = recordHead(QDateTime::currentDateTime(), channel, peer, command, task) +
                            recordTail(outcome, delivered);
    QMutexLocker lock(&m_mutex);
    sweepRefused(now(), false);
    return write(line);
}

AuditLog::Entry AuditLog::begin(Channel channel, const QString& peer, const QByteArray& command,
                                std::optional<int> task)
{
    Entry entry;
    entry.line = recordHead(QDateTime::currentDateTime(), channel, peer, command, task);
    QMutexLocker lock(&m_mutex);
    sweepRefused(now(), false);
    entry.written = write(entry.line + recordTail(Pending), &entry.position);
    entry.error = entry.written ? 0 : errno;
    return entry;
}

// Overwrites the pending outcome when the line is still in the file it went
// to; after a rotation or a deletion the finished record is appended instead.
void AuditLog::finish(const Entry& entry, Outcome outcome, std::optional<bool> delivered)
{
    const QByteArray tail = recordTail(outcome, delivered);
    QMutexLocker lock(&m_mutex);
    if (entry.written) {
        const UniqueFd fd(
            ::open(QFile::encodeName(currentPath()).constData(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
        struct stat st {
        };
        if (fd && ::fstat(fd.get(), &st) == 0 && st.st_dev == entry.position.device &&
            st.st_ino == entry.position.inode &&
            st.st_size >= entry.position.offset + entry.line.size() + tail.size()) {
            const off_t at = static_cast<off_t>(entry.position.offset + entry.line.size());
            if (::pwrite(fd.get(), tail.constData(), static_cast<size_t>(tail.size()), at) == tail.size()) {
                ::fdatasync(fd.get());
                return;
            }
        }
    }
    write(entry.line + tail);
}

// At most one line per address and interval, each with the refusals since the
// one before; none once the refused-peer share of the file is used up.
bool AuditLog::refusedPeer(Channel channel, const QString& peer, const QByteArray& command)
{
    const qint64 t = now();
    sweepRefused(t, false);
    auto it = m_refused.find(peer);
    if (it == m_refused.end()) {
        if (m_refused.size() >= kMaxTrackedPeers) {
            ++m_refusedElsewhere;
            return false;
        }
        it = m_refused.insert(peer, RefusedPeerState());
    }
    ++it->uncounted;
    if (it->lastLineMs && t - *it->lastLineMs < kRefusedPeerIntervalMs)
        return false;
    if (!writeRefused(channel, peer, command, it->uncounted))
        return false;
    it->lastLineMs = t;
    it->uncounted = 0;
    return true;
}

bool AuditLog::writeRefused(Channel channel, const QString& peer, const QByteArray& command, quint64 count)
{
    const QByteArray line =
        recordHead(QDateTime::currentDateTime(), channel, peer, command, std::nullopt, count) +
        recordTail(RefusedPeer);
    const qint64 share = m_file.maxBytes() / kRefusedShareDivisor;
    if (m_file.maxBytes() > 0 && m_refusedBytes + line.size() > share)
        return false;
    // Without a line, the refusals stay counted for a later one.
    if (!write(line))
        return false;
    m_refusedBytes += line.size();
    return true;
}

// Writes the counts that waited out their interval and forgets quiet peers;
// with all, every count still waiting.
void AuditLog::sweepRefused(qint64 nowMs, bool all)
{
    // The counts belong to the file they go to (tests and --prefix move it).
    const QString path = currentPath();
    if (path != m_refusedPath) {
        m_refused.clear();
        m_refusedElsewhere = 0;
        m_refusedPath = path;
    }
    if (!all && nowMs < m_nextSweepMs)
        return;
    m_nextSweepMs = nowMs + kRefusedPeerIntervalMs / 4;
    for (auto it = m_refused.begin(); it != m_refused.end();) {
        const bool due = all || !it->lastLineMs || nowMs - *it->lastLineMs >= kRefusedPeerIntervalMs;
        if (due && it->uncounted == 0) {
            it = m_refused.erase(it);
            continue;
        }
        if (due && writeRefused(Listener, it.key(), QByteArray(), it->uncounted)) {
            it->lastLineMs = nowMs;
            it->uncounted = 0;
        }
        ++it;
    }
    if (m_refusedElsewhere > 0 && writeRefused(Listener, kElsewhere, QByteArray(), m_refusedElsewhere))
        m_refusedElsewhere = 0;
}

OrderReport::OrderReport() : m_outer(t_orderReport)
{
    t_orderReport = this;
}

OrderReport::~OrderReport()
{
    t_orderReport = m_outer;
}

void OrderReport::noteSucceeded(bool succeeded)
{
    if (t_orderReport)
        t_orderReport->succeeded = succeeded;
}

void OrderReport::noteDelivered(bool delivered)
{
    if (t_orderReport)
        t_orderReport->delivered = delivered;
}
