#pragma once

#include "comm/ApiManager.h"
#include "comm/HttpManager.h"
#include "comm/PendingReport.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

#include "core/UniqueFd.h"

#include <functional>

// Posts the server did not take (no answer, or a 5xx) wait here, in the
// pending directory, until it is back. Snapshots are kept one per task (the
// newest); results are kept each until delivered, in order. Replay sends one
// file per pass of the event loop. The daemon holds an exclusive lock on the
// directory for its lifetime, so a second agent on the same prefix keeps
// nothing and touches nothing. Main thread only.
class Outbox : public QObject
{
    Q_OBJECT

public:
    struct Limits {
        int maxFiles = 1000;
        qint64 maxBytes = 64LL * 1024 * 1024;
    };

    struct Entry {
        QString file; // name inside the directory
        quint64 seq = 0;
        PendingReport::Header header;
        qint64 size = 0; // the whole file
    };

    enum class Step { Empty, Delivered, Dropped, Stopped };

    using Poster = std::function<HttpManager::Outcome(API_NAME route, const QByteArray& body)>;

    static Outbox* getInstance();
    static void releaseInstance();
    // The instance when it has been opened, else null: nothing is kept.
    static Outbox* active();

    // Default directory: Common::getReportsPath() + "/edr/pending".
    explicit Outbox(const QString& directory = QString(), QObject* parent = nullptr);
    ~Outbox() override;

    static QString defaultDirectory();
    // OutboxMaxFiles / OutboxMaxBytes from agent.conf; a bad value is an
    // Error line and the default.
    static Limits configuredLimits();

    void setLimits(const Limits& limits) { m_limits = limits; }
    void setPoster(Poster poster) { m_poster = std::move(poster); }

    // Locks and scans the directory; false (with an Error line) when it
    // cannot be used. lockHolder() names the other agent when it is locked.
    bool lockAndScan();
    // The daemon's way in: locks now, or keeps trying every intervalMs on
    // the event loop (a flush may hold the lock for minutes) and says so
    // once it has the directory.
    void openWhenFree(int intervalMs);
    bool isOpen() const { return m_lock.valid(); }
    qint64 lockHolder() const { return m_lockHolder; }
    QString directory() const { return m_dir; }

    QList<Entry> entries() const { return m_entries; }
    bool isEmpty() const { return m_entries.isEmpty(); }
    int pendingResults() const;
    qint64 totalBytes() const;

    // Writes a post that the server did not take. origin names the caller
    // for the log; reason says why it is kept.
    bool keep(const char* origin, API_NAME route, const QByteArray& body, const QString& reason);
    // A new result must not overtake results still waiting.
    bool mustQueue(API_NAME route) const;
    // A fresh post of route reached the server: a waiting snapshot of the
    // same task is stale and goes; replay follows when anything waits.
    void onPosted(const char* origin, API_NAME route);

    // Replay is allowed from registration on; this also starts one pass.
    void enableReplay();
    // Queues one replay step on the event loop (if allowed, not queued yet).
    void scheduleReplay();
    // Sends the oldest file now (blocking for one post). Nothing is sent
    // while a delivered or superseded file could not be removed.
    Step replayOne();
    // Files that left the queue but are still on disk (directory not
    // writable); remembered beside the directory across restarts.
    QStringList undeleted() const { return m_gone; }

    // Read-only look at a directory for the outbox command: nothing is
    // moved, locked or deleted. problems receives one line per odd file.
    static QList<Entry> inspect(const QString& directory, QStringList* problems);

private slots:
    void onReplayStep();

private:
    struct Check {
        std::optional<Entry> entry;
        QString problem;
    };
    static Check checkFile(const QString& directory, const QString& name, qint64 maxBytes, QByteArray* body);
    void scan();
    bool tryLock();
    void lockFailed(int err, const QByteArray& text);
    void moveAside(const QString& name, const QString& why);
    void enforceLimits(const char* origin, const QString& spare);
    void remove(const char* origin, int index);
    void removeFile(const char* origin, const QString& name);
    bool removeGone();
    void loadGone();
    void saveGone();
    QString goneListPath() const { return m_dir + QStringLiteral(".gone"); }
    HttpManager::Outcome post(API_NAME route, const QByteArray& body) const;

    static Outbox* s_instance;

    QString m_dir;
    Limits m_limits;
    Poster m_poster;
    QList<Entry> m_entries; // oldest first
    quint64 m_lastSeq = 0;
    UniqueFd m_lock;
    qint64 m_lockHolder = 0;
    QByteArray m_lastLockError; // said once while retrying
    QTimer m_lockRetry;
    QStringList m_gone;
    QTimer m_goneRetry;
    bool m_replayAllowed = false;
    bool m_replayQueued = false;
};
