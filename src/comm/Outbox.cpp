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
#include <QSaveFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <limits>
#include <memory>
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

QStringList readGoneList(const QString& path)
{
    QStringList names;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return names;
    for (const QByteArray& line : file.read(1 << 20).split('\n')) {
        quint64 seq = 0;
        int task = 0;
        const QString name = QFile::decodeName(line.trimmed());
        if (parseName(name, &seq, &task))
            names.append(name);
    }
    return names;
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
    m_lockRetry.setSingleShot(false);
    connect(&m_lockRetry, &QTimer::timeout, this, [this] {
        if (!tryLock())
            return;
        m_lockRetry.stop();
        EDR_LOG->Info("void Outbox::openWhenFree(int)",
                      "Took the lock of pending directory %s: failed posts are kept from now on",
                      local(m_dir).constData());
        scheduleReplay();
    });
    connect(&m_goneRetry, &QTimer::timeout, this, [this] {
        if (removeGone())
            scheduleReplay();
    });
}

Outbox::~Outbox() = default;

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
    m_lastLockError.clear();
    return tryLock();
}

void Outbox::openWhenFree(int intervalMs)
{
    if (lockAndScan())
        return;
    EDR_LOG->Info(Q_FUNC_INFO, "Trying again every %d ms to take pending directory %s", intervalMs,
                  local(m_dir).constData());
    m_lockRetry.start(intervalMs);
}

// The same failure again (a retry while a flush holds the lock) is not logged again.
void Outbox::lockFailed(int err, const QByteArray& text)
{
    if (text != m_lastLockError)
        EDR_LOG->Error("bool Outbox::lockAndScan()", err, "%s", text.constData());
    m_lastLockError = text;
}

bool Outbox::tryLock()
{
    if (isOpen())
        return true;
    const QByteArray dir = local(m_dir);
    struct stat st {
    };
    if (::lstat(dir.constData(), &st) == 0 && !S_ISDIR(st.st_mode)) {
        lockFailed(ENOTDIR, "Pending directory " + dir +
                                " is not a directory (or is a symbolic link); failed posts cannot be kept");
        return false;
    }
    if (!QDir().mkpath(m_dir)) {
        lockFailed(errno, "Cannot create pending directory " + dir + "; failed posts cannot be kept");
        return false;
    }
    const QByteArray lockPath = dir + '/' + kLockName;
    UniqueFd fd(::open(lockPath.constData(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd) {
        lockFailed(errno, "Cannot open " + lockPath + "; failed posts cannot be kept");
        return false;
    }
    if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        const int err = errno;
        char buf[32] = {};
        const ssize_t n = ::pread(fd.get(), buf, sizeof buf - 1, 0);
        m_lockHolder = n > 0 ? QByteArray(buf, static_cast<int>(n)).trimmed().toLongLong() : 0;
        lockFailed(err, "Pending directory " + dir + " is in use by another agent (pid " +
                            QByteArray::number(m_lockHolder) + "); this one keeps and replays nothing");
        return false;
    }
    const QByteArray pid = QByteArray::number(static_cast<qint64>(::getpid())) + '\n';
    if (::ftruncate(fd.get(), 0) != 0 ||
        ::pwrite(fd.get(), pid.constData(), static_cast<size_t>(pid.size()), 0) != pid.size())
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Cannot record this agent's pid in %s", lockPath.constData());
    m_lock = std::move(fd);
    m_lockHolder = 0;
    m_lastLockError.clear();
    loadGone();
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
    const UniqueFd fd(::open(path.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd) {
        check.problem =
            errno == ELOOP
                ? QStringLiteral("a symbolic link")
                : QStringLiteral("cannot be opened: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
        return check;
    }
    struct stat st {
    };
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        check.problem = QStringLiteral("not a regular file");
        return check;
    }
    QByteArray head(static_cast<int>(qMin<qint64>(st.st_size, PendingReport::kMaxHeaderBytes)),
                    Qt::Uninitialized);
    int headerBytes = 0;
    std::optional<PendingReport::Header> header;
    if (readFully(fd.get(), head.data(), head.size()))
        header = PendingReport::parseHeader(head, &headerBytes);
    if (!header || header->task != nameTask) {
        check.problem = QStringLiteral("no pending-report header");
        return check;
    }
    if (header->length > maxBytes || headerBytes + header->length != st.st_size) {
        check.problem = QStringLiteral("claims %1 body bytes but holds %2")
                            .arg(header->length)
                            .arg(st.st_size - headerBytes);
        return check;
    }
    if (body) {
        body->resize(static_cast<int>(header->length));
        const bool ok = ::lseek(fd.get(), headerBytes, SEEK_SET) == headerBytes &&
                        readFully(fd.get(), body->data(), header->length);
        if (!ok) {
            check.problem = QStringLiteral("short read");
            return check;
        }
    }
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
    if (const std::unique_ptr<DIR, int (*)(DIR*)> d{::opendir(dir.constData()), ::closedir}) {
        while (dirent* e = ::readdir(d.get()))
            names.append(QFile::decodeName(e->d_name));
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
        if (m_gone.contains(name)) {
            // Its number is not used again: a new file must never take its name.
            quint64 seq = 0;
            int task = 0;
            if (parseName(name, &seq, &task))
                m_lastSeq = qMax(m_lastSeq, seq);
            continue;
        }
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
            remove(Q_FUNC_INFO, i);
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

void Outbox::remove(const char* origin, int index)
{
    const QString name = m_entries.at(index).file;
    m_entries.removeAt(index);
    removeFile(origin, name);
}

// A file that has left the queue but stays on disk would be sent again
// after a restart, possibly after newer data: it is remembered, and
// nothing more goes out until it could be removed.
void Outbox::removeFile(const char* origin, const QString& name)
{
    const QByteArray path = local(m_dir + QLatin1Char('/') + name);
    if (::unlink(path.constData()) == 0 || errno == ENOENT)
        return;
    EDR_LOG->Error(origin, errno,
                   "Cannot remove %s, which is no longer pending; replay stops until the directory is "
                   "writable again",
                   path.constData());
    if (!m_gone.contains(name))
        m_gone.append(name);
    saveGone();
    if (!m_goneRetry.isActive())
        m_goneRetry.start(Common::scaledMs(60000));
}

// True when nothing is left to remove.
bool Outbox::removeGone()
{
    if (m_gone.isEmpty())
        return true;
    const int before = m_gone.size();
    for (int i = m_gone.size() - 1; i >= 0; --i) {
        const QByteArray path = local(m_dir + QLatin1Char('/') + m_gone.at(i));
        if (::unlink(path.constData()) == 0 || errno == ENOENT)
            m_gone.removeAt(i);
    }
    if (m_gone.size() == before)
        return false;
    saveGone();
    if (!m_gone.isEmpty())
        return false;
    m_goneRetry.stop();
    EDR_LOG->Info("bool Outbox::removeGone()",
                  "Removed %d files from %s that were no longer pending; replay goes on", before,
                  local(m_dir).constData());
    return true;
}

void Outbox::loadGone()
{
    for (const QString& name : readGoneList(goneListPath()))
        if (!m_gone.contains(name))
            m_gone.append(name);
    if (!m_gone.isEmpty())
        EDR_LOG->Info(Q_FUNC_INFO, "%d files in %s were delivered or superseded before and are not sent",
                      static_cast<int>(m_gone.size()), local(m_dir).constData());
    if (!removeGone() && !m_goneRetry.isActive())
        m_goneRetry.start(Common::scaledMs(60000));
}

// Kept beside the directory, which may be the part that is read-only.
void Outbox::saveGone()
{
    if (m_gone.isEmpty()) {
        QFile::remove(goneListPath());
        return;
    }
    QSaveFile file(goneListPath());
    QByteArray text;
    for (const QString& name : qAsConst(m_gone))
        text += local(name) + '\n';
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size() || !file.commit())
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Cannot record %s: after a restart those files could go out again",
                       qUtf8Printable(goneListPath()));
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
        remove(origin, victim);
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
    UniqueFd fd(::open(tempPath.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd && errno == ENOENT && QDir().mkpath(m_dir))
        fd.reset(::open(tempPath.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    bool ok = fd && writeFully(fd.get(), head.constData(), head.size()) &&
              writeFully(fd.get(), body.constData(), body.size()) && ::fdatasync(fd.get()) == 0;
    int err = errno;
    // A close that fails may have lost the data: checked, so the descriptor is handed over.
    if (fd && ::close(fd.release()) != 0 && ok) {
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
                remove(origin, i);
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
                remove(origin, i);
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
    if (!removeGone())
        return Step::Stopped;
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
        removeFile(Q_FUNC_INFO, entry.file);
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
    const QStringList gone = readGoneList(directory + QStringLiteral(".gone"));
    for (const QString& name : names) {
        if (gone.contains(name))
            continue;
        const Check check = checkFile(directory, name, std::numeric_limits<qint64>::max() / 2, nullptr);
        if (check.entry)
            entries.append(*check.entry);
        else if (problems)
            problems->append(name + QStringLiteral(": ") + check.problem);
    }
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.seq < b.seq; });
    return entries;
}
