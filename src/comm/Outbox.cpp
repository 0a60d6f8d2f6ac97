#include "comm/Outbox.h"

#include "core/CLogger.h"
#include "core/Common.h"
#include "core/EdrAgentConfig.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QRegularExpression>
#include <QTimer>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <limits>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

Outbox* Outbox::s_instance = nullptr;

namespace
{
const char kLockName[] = ".lock";
const char kBadDir[] = "bad";

QByteArray local(const QString& path)
{
    return QFile::encodeName(path);
}

// Reads exactly size bytes; false on a short file or an error.
bool readFully(int fd, char* data, qint64 size)
{
    qint64 done = 0;
    while (done < size) {
        const ssize_t n = ::read(fd, data + done, static_cast<size_t>(size - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += n;
    }
    return true;
}

bool writeFully(int fd, const char* data, qint64 size)
{
    qint64 done = 0;
    while (done < size) {
        const ssize_t n = ::write(fd, data + done, static_cast<size_t>(size - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        done += n;
    }
    return true;
}

bool parseName(const QString& name, quint64* seq, int* task)
{
    static const QRegularExpression pattern(QStringLiteral("^(\\d{10})-(\\d{2})\\.rpt$"));
    const QRegularExpressionMatch m = pattern.match(name);
    if (!m.hasMatch())
        return false;
    *seq = m.captured(1).toULongLong();
    *task = m.captured(2).toInt();
    return true;
}

QByteArray describe(const Outbox::Entry& e)
{
    return QByteArray(PendingReport::kindName(e.header.kind)) + " of task " +
           QByteArray::number(e.header.task) + " (" + local(e.file) + ", " + QByteArray::number(e.size) +
           " bytes)";
}

qint64 limitFrom(const EdrAgentConfig& config, const char* key, qint64 fallback, qint64 ceiling)
{
    const QString text = config.getSetting(QString::fromLatin1(key)).trimmed();
    if (text.isEmpty())
        return fallback;
    bool ok = false;
    const qint64 value = text.toLongLong(&ok);
    if (ok && value > 0 && value <= ceiling)
        return value;
    EDR_LOG->Error("static Outbox::Limits Outbox::configuredLimits()", EINVAL,
                   "%s '%s' in agent.conf is not a number from 1 to %lld; using %lld", key,
                   qUtf8Printable(text), static_cast<long long>(ceiling), static_cast<long long>(fallback));
    return fallback;
}
} // namespace

Outbox* Outbox::getInstance()
{
    if (!s_instance)
        s_instance = new Outbox();
    return s_instance;
}

void Outbox::releaseInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

Outbox* Outbox::active()
{
    return s_instance && s_instance->isOpen() ? s_instance : nullptr;
}

Outbox::Outbox(const QString& directory, QObject* parent)
    : QObject(parent), m_dir(directory.isEmpty() ? defaultDirectory() : directory)
{
}

Outbox::~Outbox()
{
    if (m_lockFd >= 0)
        ::close(m_lockFd);
}

QString Outbox::defaultDirectory()
{
    return Common::getReportsPath() + QStringLiteral("/edr/pending");
}

Outbox::Limits Outbox::configuredLimits()
{
    const EdrAgentConfig config;
    Limits limits;
    limits.maxFiles = static_cast<int>(limitFrom(config, "OutboxMaxFiles", limits.maxFiles, 1000000));
    limits.maxBytes = limitFrom(config, "OutboxMaxBytes", limits.maxBytes, 1LL << 30);
    return limits;
}

int Outbox::pendingResults() const
{
    return static_cast<int>(std::count_if(m_entries.cbegin(), m_entries.cend(), [](const Entry& e) {
        return e.header.kind == PendingReport::Kind::Result;
    }));
}

qint64 Outbox::totalBytes() const
{
    qint64 total = 0;
    for (const Entry& e : m_entries)
        total += e.size;
    return total;
}

bool Outbox::lockAndScan()
{
    if (isOpen())
        return true;
    const QByteArray dir = local(m_dir);
    struct stat st {
    };
    if (::lstat(dir.constData(), &st) == 0 && !S_ISDIR(st.st_mode)) {
        EDR_LOG->Error(
            Q_FUNC_INFO, ENOTDIR,
            "Pending directory %s is not a directory (or is a symbolic link); failed posts cannot be kept",
            dir.constData());
        return false;
    }
    if (!QDir().mkpath(m_dir)) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Cannot create pending directory %s; failed posts cannot be kept",
                       dir.constData());
        return false;
    }
    const QByteArray lockPath = dir + '/' + kLockName;
    const int fd = ::open(lockPath.constData(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Cannot open %s; failed posts cannot be kept",
                       lockPath.constData());
        return false;
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int err = errno;
        char buf[32] = {};
        const ssize_t n = ::pread(fd, buf, sizeof buf - 1, 0);
        m_lockHolder = n > 0 ? QByteArray(buf, static_cast<int>(n)).trimmed().toLongLong() : 0;
        ::close(fd);
        EDR_LOG->Error(
            Q_FUNC_INFO, err,
            "Pending directory %s is in use by another agent (pid %lld); this one keeps and replays "
            "nothing",
            dir.constData(), static_cast<long long>(m_lockHolder));
        return false;
    }
    const QByteArray pid = QByteArray::number(static_cast<qint64>(::getpid())) + '\n';
    if (::ftruncate(fd, 0) != 0 ||
        ::pwrite(fd, pid.constData(), static_cast<size_t>(pid.size()), 0) != pid.size())
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Cannot record this agent's pid in %s", lockPath.constData());
    m_lockFd = fd;
    m_lockHolder = 0;
    scan();
    return true;
}

Outbox::Check Outbox::checkFile(const QString& directory, const QString& name, qint64 maxBytes,
                                QByteArray* body)
{
    Check check;
    Entry entry;
    entry.file = name;
    int nameTask = -1;
    if (!parseName(name, &entry.seq, &nameTask)) {
        check.problem = QStringLiteral("not a name this agent writes");
        return check;
    }
    const QByteArray path = local(directory + QLatin1Char('/') + name);
    // O_NOFOLLOW and O_NONBLOCK: a link is never followed out of the
    // directory and a FIFO never blocks.
    const int fd = ::open(path.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        check.problem =
            errno == ELOOP
                ? QStringLiteral("a symbolic link")
                : QStringLiteral("cannot be opened: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
        return check;
    }
    struct stat st {
    };
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        check.problem = QStringLiteral("not a regular file");
        return check;
    }
    QByteArray head(static_cast<int>(qMin<qint64>(st.st_size, PendingReport::kMaxHeaderBytes)),
                    Qt::Uninitialized);
    int headerBytes = 0;
    std::optional<PendingReport::Header> header;
    if (readFully(fd, head.data(), head.size()))
        header = PendingReport::parseHeader(head, &headerBytes);
    if (!header || header->task != nameTask) {
        ::close(fd);
        check.problem = QStringLiteral("no pending-report header");
        return check;
    }
    if (header->length > maxBytes || headerBytes + header->length != st.st_size) {
        ::close(fd);
        check.problem = QStringLiteral("claims %1 body bytes but holds %2")
                            .arg(header->length)
                            .arg(st.st_size - headerBytes);
        return check;
    }
    if (body) {
        body->resize(static_cast<int>(header->length));
        const bool ok =
            ::lseek(fd, headerBytes, SEEK_SET) == headerBytes && readFully(fd, body->data(), header->length);
        if (!ok) {
            ::close(fd);
            check.problem = QStringLiteral("short read");
            return check;
        }
    }
    ::close(fd);
    entry.header = *header;
    entry.size = st.st_size;
    check.entry = entry;
    return check;
}

void Outbox::scan()
{
    const QByteArray dir = local(m_dir);
    m_entries.clear();
    m_lastSeq = 0;
    QStringList names;
    if (DIR* d = ::opendir(dir.constData())) {
        while (dirent* e = ::readdir(d))
            names.append(QFile::decodeName(e->d_name));
        ::closedir(d);
    } else {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Cannot list pending directory %s", dir.constData());
        return;
    }
    names.sort();
    for (const QString& name : names) {
        if (name.startsWith(QLatin1Char('.'))) {
            // A file that was being written when the agent died.
            if (name.endsWith(QLatin1String(".tmp"))) {
                ::unlink(local(m_dir + QLatin1Char('/') + name).constData());
                EDR_LOG->Info(Q_FUNC_INFO, "Removed unfinished pending file %s", qUtf8Printable(name));
            }
            continue;
        }
        if (!name.endsWith(QLatin1String(".rpt")))
            continue;
        const Check check = checkFile(m_dir, name, m_limits.maxBytes, nullptr);
        if (!check.entry) {
            moveAside(name, check.problem);
            continue;
        }
        m_entries.append(*check.entry);
        m_lastSeq = qMax(m_lastSeq, check.entry->seq);
    }
    std::sort(m_entries.begin(), m_entries.end(),
              [](const Entry& a, const Entry& b) { return a.seq < b.seq; });
    // A crash between writing a snapshot and removing the one it replaced
    // leaves two; the newer wins.
    QMap<int, int> newestSnapshot;
    for (int i = 0; i < m_entries.size(); ++i)
        if (m_entries.at(i).header.kind == PendingReport::Kind::Snapshot)
            newestSnapshot[m_entries.at(i).header.task] = i;
    for (int i = m_entries.size() - 1; i >= 0; --i) {
        const Entry& e = m_entries.at(i);
        if (e.header.kind == PendingReport::Kind::Snapshot && newestSnapshot.value(e.header.task) != i) {
            EDR_LOG->Info(Q_FUNC_INFO, "Removed superseded pending %s", describe(e).constData());
            remove(i);
        }
    }
    enforceLimits(Q_FUNC_INFO, QString());
    if (!m_entries.isEmpty())
        EDR_LOG->Info(Q_FUNC_INFO, "%d pending reports (%lld bytes) wait in %s",
                      static_cast<int>(m_entries.size()), static_cast<long long>(totalBytes()),
                      dir.constData());
}

void Outbox::moveAside(const QString& name, const QString& why)
{
    const QString badDir = m_dir + QLatin1Char('/') + QLatin1String(kBadDir);
    QDir().mkpath(badDir);
    QString target = badDir + QLatin1Char('/') + name;
    for (int i = 1; QFileInfo::exists(target) || QFileInfo(target).isSymLink(); ++i)
        target = badDir + QLatin1Char('/') + name + QLatin1Char('.') + QString::number(i);
    const QByteArray from = local(m_dir + QLatin1Char('/') + name);
    // rename() moves a link itself, never what it points to; bad/ itself
    // must be a real directory, not a link out of the outbox.
    struct stat st {
    };
    const bool realDir = ::lstat(local(badDir).constData(), &st) == 0 && S_ISDIR(st.st_mode);
    if (!realDir)
        errno = ENOTDIR;
    if (realDir && ::rename(from.constData(), local(target).constData()) == 0) {
        EDR_LOG->Error(Q_FUNC_INFO, EBADMSG, "Pending file %s is unusable (%s); moved to %s",
                       qUtf8Printable(name), qUtf8Printable(why), qUtf8Printable(target));
    } else {
        EDR_LOG->Error(Q_FUNC_INFO, errno,
                       "Pending file %s is unusable (%s) and could not be moved to %s; skipped",
                       qUtf8Printable(name), qUtf8Printable(why), qUtf8Printable(badDir));
    }
}

void Outbox::remove(int index)
{
    ::unlink(local(m_dir + QLatin1Char('/') + m_entries.at(index).file).constData());
    m_entries.removeAt(index);
}

void Outbox::enforceLimits(const char* origin, const QString& spare)
{
    qint64 total = totalBytes();
    while (m_entries.size() > m_limits.maxFiles || total > m_limits.maxBytes) {
        int victim = -1;
        for (PendingReport::Kind kind : {PendingReport::Kind::Snapshot, PendingReport::Kind::Result}) {
            for (int i = 0; i < m_entries.size() && victim < 0; ++i)
                if (m_entries.at(i).header.kind == kind && m_entries.at(i).file != spare)
                    victim = i;
            if (victim >= 0)
                break;
        }
        if (victim < 0)
            return;
        const Entry dropped = m_entries.at(victim);
        EDR_LOG->Error(
            origin, ENOSPC,
            "Outbox over its bounds (%d files, %lld bytes; limits %d files, %lld bytes): dropped pending %s",
            static_cast<int>(m_entries.size()), static_cast<long long>(total), m_limits.maxFiles,
            static_cast<long long>(m_limits.maxBytes), describe(dropped).constData());
        total -= dropped.size;
        remove(victim);
    }
}

bool Outbox::keep(const char* origin, API_NAME route, const QByteArray& body, const QString& reason)
{
    std::optional<PendingReport::Header> header = PendingReport::forRoute(route);
    if (!header)
        return false;
    const char* kind = PendingReport::kindName(header->kind);
    if (!isOpen()) {
        EDR_LOG->Error(origin, EAGAIN, "Not kept for later: %s of task %d (pending directory %s unusable)",
                       kind, header->task, qUtf8Printable(m_dir));
        return false;
    }
    header->createdMs = QDateTime::currentMSecsSinceEpoch();
    header->length = body.size();
    const QByteArray head = PendingReport::encodeHeader(*header);
    const qint64 size = head.size() + body.size();
    if (size > m_limits.maxBytes) {
        EDR_LOG->Error(origin, EFBIG,
                       "Not kept for later: %s of task %d is %lld bytes, beyond OutboxMaxBytes %lld", kind,
                       header->task, static_cast<long long>(size), static_cast<long long>(m_limits.maxBytes));
        return false;
    }

    Entry entry;
    entry.seq = m_lastSeq + 1;
    entry.header = *header;
    entry.size = size;
    entry.file = QStringLiteral("%1-%2.rpt")
                     .arg(entry.seq, 10, 10, QLatin1Char('0'))
                     .arg(header->task, 2, 10, QLatin1Char('0'));
    const QByteArray dir = local(m_dir);
    const QByteArray finalPath = dir + '/' + local(entry.file);
    const QByteArray tempPath = dir + "/." + local(entry.file) + ".tmp";

    // Temporary file, data synced, rename: after a crash or power loss the
    // file is there whole or not at all. The directory is not synced: losing
    // the newest rename is "not at all", and it would double the cost.
    int fd = ::open(tempPath.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0 && errno == ENOENT && QDir().mkpath(m_dir))
        fd = ::open(tempPath.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    bool ok = fd >= 0 && writeFully(fd, head.constData(), head.size()) &&
              writeFully(fd, body.constData(), body.size()) && ::fdatasync(fd) == 0;
    int err = errno;
    if (fd >= 0 && ::close(fd) != 0 && ok) {
        ok = false;
        err = errno;
    }
    if (ok && ::rename(tempPath.constData(), finalPath.constData()) != 0) {
        ok = false;
        err = errno;
    }
    if (!ok) {
        ::unlink(tempPath.constData());
        EDR_LOG->Error(origin, err, "Not kept for later: %s of task %d could not be written to %s", kind,
                       header->task, finalPath.constData());
        return false;
    }
    m_lastSeq = entry.seq;

    if (header->kind == PendingReport::Kind::Snapshot) {
        for (int i = m_entries.size() - 1; i >= 0; --i)
            if (m_entries.at(i).header.kind == PendingReport::Kind::Snapshot &&
                m_entries.at(i).header.task == header->task)
                remove(i);
    }
    m_entries.append(entry);
    EDR_LOG->Info(origin, "Kept %s for later delivery: %s", describe(entry).constData(),
                  qUtf8Printable(reason));
    enforceLimits(origin, entry.file);
    return true;
}

bool Outbox::mustQueue(API_NAME route) const
{
    const std::optional<PendingReport::Header> header = PendingReport::forRoute(route);
    return header && header->kind == PendingReport::Kind::Result && pendingResults() > 0;
}

void Outbox::onPosted(const char* origin, API_NAME route)
{
    if (m_entries.isEmpty())
        return;
    const std::optional<PendingReport::Header> header = PendingReport::forRoute(route);
    if (header && header->kind == PendingReport::Kind::Snapshot) {
        for (int i = m_entries.size() - 1; i >= 0; --i) {
            const Entry& e = m_entries.at(i);
            if (e.header.kind == PendingReport::Kind::Snapshot && e.header.task == header->task) {
                EDR_LOG->Info(origin, "Removed pending %s: a newer one reached the server",
                              describe(e).constData());
                remove(i);
            }
        }
    }
    scheduleReplay();
}

void Outbox::enableReplay()
{
    m_replayAllowed = true;
    scheduleReplay();
}

void Outbox::scheduleReplay()
{
    if (!m_replayAllowed || m_replayQueued || m_entries.isEmpty())
        return;
    m_replayQueued = true;
    // A queued call, not a loop: whatever else waits on the event loop (a
    // pushed order, the schedule tick, a signal) runs between two files.
    QTimer::singleShot(0, this, &Outbox::onReplayStep);
}

void Outbox::onReplayStep()
{
    m_replayQueued = false;
    const Step step = replayOne();
    if (step == Step::Delivered || step == Step::Dropped)
        scheduleReplay();
}

HttpManager::Outcome Outbox::post(API_NAME route, const QByteArray& body) const
{
    if (m_poster)
        return m_poster(route, body);
    // As the "data" field the body goes out as it stands: the same bytes
    // as the post that failed.
    QMap<QString, QString> fields;
    fields.insert(QStringLiteral("data"), QString::fromUtf8(body));
    QString response;
    HttpManager::Outcome outcome;
    HttpManager::getInstance()->sendDataToServer(true, ApiManager::getAPI(route), 3, fields, response,
                                                 outcome);
    return outcome;
}

Outbox::Step Outbox::replayOne()
{
    while (!m_entries.isEmpty()) {
        const Entry head = m_entries.first();
        QByteArray body;
        const Check check = checkFile(m_dir, head.file, m_limits.maxBytes, &body);
        if (!check.entry) {
            m_entries.removeFirst();
            moveAside(head.file, check.problem);
            continue;
        }
        const Entry& entry = *check.entry;
        const HttpManager::Outcome outcome = post(static_cast<API_NAME>(entry.header.route), body);
        if (outcome.serverFailed()) {
            const QByteArray why = outcome.answered
                                       ? "HTTP " + QByteArray::number(static_cast<qint64>(outcome.status))
                                       : QByteArray("no answer");
            EDR_LOG->Info(Q_FUNC_INFO, "Replay of pending %s stopped (%s); %d files wait",
                          describe(entry).constData(), why.constData(), static_cast<int>(m_entries.size()));
            return Step::Stopped;
        }
        m_entries.removeFirst();
        ::unlink(local(m_dir + QLatin1Char('/') + entry.file).constData());
        if (outcome.status >= 400) {
            // The server heard it and said no; sending it again would not change that.
            EDR_LOG->Error(Q_FUNC_INFO, EPROTO, "Server refused pending %s with HTTP %ld; dropped",
                           describe(entry).constData(), outcome.status);
            return Step::Dropped;
        }
        EDR_LOG->Info(Q_FUNC_INFO, "Delivered pending %s", describe(entry).constData());
        return Step::Delivered;
    }
    return Step::Empty;
}

QList<Outbox::Entry> Outbox::inspect(const QString& directory, QStringList* problems)
{
    QList<Entry> entries;
    const QDir dir(directory);
    const QStringList names =
        dir.entryList({QStringLiteral("*.rpt")}, QDir::Files | QDir::System, QDir::Name);
    for (const QString& name : names) {
        const Check check = checkFile(directory, name, std::numeric_limits<qint64>::max() / 2, nullptr);
        if (check.entry)
            entries.append(*check.entry);
        else if (problems)
            problems->append(name + QStringLiteral(": ") + check.problem);
    }
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.seq < b.seq; });
    return entries;
}
