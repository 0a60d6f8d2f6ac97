#pragma once

#include "core/RotatingFile.h"

#include <QByteArray>
#include <QDateTime>
#include <QHash>
#include <QMutex>
#include <QString>

#include <functional>
#include <optional>

// The record of every command the agent receives, audit.log in the data
// directory: one JSON object per line, mode 0600, rotated like the trace log
// and never touched by the trace-log reset. An order's line is written before
// it runs, with the outcome "pending", and completed in place afterwards, so a
// crash in the middle still leaves the record. Thread-safe.
class AuditLog
{
public:
    enum Channel { Push, Listener };
    enum Outcome { Pending, Done, Failed, Denied, RefusedPeer, Malformed };

    // A line still waiting for its outcome.
    struct Entry {
        bool written = false; // on disk and synced
        int error = 0;        // errno when not
        RotatingFile::Position position;
        QByteArray line; // as written, outcome excluded
    };

    // A refused peer gets a line at most this often; the refusals in between
    // are counted into its next one.
    static constexpr qint64 kRefusedPeerIntervalMs = 60 * 1000;
    // Refused-peer lines never fill more than this share of one audit file, so
    // they alone cannot rotate order records away.
    static constexpr int kRefusedShareDivisor = 8;
    // Addresses whose refusals are counted at once; more are counted together.
    static constexpr int kMaxTrackedPeers = 1024;

    static AuditLog* getInstance();
    static void releaseInstance();

    // Defaults to Common::getEdrDirPath() + "/audit.log", resolved per record.
    void setFilePath(const QString& path);
    QString filePath() const;
    void setRotation(qint64 maxBytes, int keptFiles);
    // Milliseconds of a clock that never goes back; for tests.
    void setClockForTesting(std::function<qint64()> clock);

    // A complete record at once (refused peers, malformed or denied commands).
    // For a refused peer, false when the refusal was only counted (no line of
    // its own), so that the caller's own log line is throttled alike.
    bool record(Channel channel, const QString& peer, const QByteArray& command, std::optional<int> task,
                Outcome outcome, std::optional<bool> delivered = std::nullopt);
    bool record(Channel channel, const QString& peer, const QString& command, std::optional<int> task,
                Outcome outcome)
    {
        return record(channel, peer, command.toUtf8(), task, outcome);
    }
    // A record whose outcome follows with finish(). Not written when the line
    // could not be written and synced whole.
    Entry begin(Channel channel, const QString& peer, const QByteArray& command, std::optional<int> task);
    void finish(const Entry& entry, Outcome outcome, std::optional<bool> delivered = std::nullopt);

    // The line without its outcome member and closing brace. The command's
    // bytes that are not UTF-8 are written as \udcXX, XX the byte in hex.
    static QByteArray recordHead(const QDateTime& when, Channel channel, const QString& peer,
                                 const QByteArray& command, std::optional<int> task,
                                 std::optional<quint64> count = std::nullopt);
    // The closing part: outcome (and delivery) members, padding to a fixed
    // width, "}\n".
    static QByteArray recordTail(Outcome outcome, std::optional<bool> delivered = std::nullopt);
    static const char* outcomeName(Outcome outcome);
    // A JSON string literal of the bytes, escaped as recordHead describes.
    static QByteArray jsonString(const QByteArray& bytes);

private:
    struct RefusedPeerState {
        std::optional<qint64> lastLineMs;
        quint64 uncounted = 0; // refusals not yet in a line
    };

    AuditLog();
    ~AuditLog();
    QString currentPath() const;
    qint64 now() const;
    bool write(const QByteArray& line, RotatingFile::Position* where = nullptr);
    bool refusedPeer(Channel channel, const QString& peer, const QByteArray& command);
    bool writeRefused(Channel channel, const QString& peer, const QByteArray& command, quint64 count);
    void sweepRefused(qint64 nowMs, bool all);

    static AuditLog* s_instance;
    mutable QMutex m_mutex;
    QString m_path;
    RotatingFile m_file;
    bool m_warned = false;
    std::function<qint64()> m_clock;
    QString m_refusedPath;
    QHash<QString, RefusedPeerState> m_refused;
    quint64 m_refusedElsewhere = 0; // from addresses beyond the table
    qint64 m_nextSweepMs = 0;
    // The file the refused-peer share is counted in, and that share.
    RotatingFile::Position m_shareFile;
    qint64 m_refusedBytes = 0;
};

// What the order carried out on this thread says about itself: whether it
// succeeded and whether its result reached the server. The code that runs and
// posts the order notes both; whoever audits it reads them afterwards. Scopes
// nest; notes made outside any scope go nowhere.
class OrderReport
{
public:
    OrderReport();
    ~OrderReport();
    OrderReport(const OrderReport&) = delete;
    OrderReport& operator=(const OrderReport&) = delete;

    static void noteSucceeded(bool succeeded);
    static void noteDelivered(bool delivered);

    std::optional<bool> succeeded;
    std::optional<bool> delivered;

private:
    OrderReport* m_outer;
};
