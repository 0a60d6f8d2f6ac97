#pragma once

#include "core/RotatingFile.h"

#include <QByteArray>
#include <QDateTime>
#include <QMutex>
#include <QString>

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
        bool written = false;
        RotatingFile::Position position;
        QByteArray line; // as written, outcome excluded
    };

    static constexpr int kMaxCommandBytes = 4096;

    static AuditLog* getInstance();
    static void releaseInstance();

    // Defaults to Common::getEdrDirPath() + "/audit.log", resolved per record.
    void setFilePath(const QString& path);
    QString filePath() const;
    void setRotation(qint64 maxBytes, int keptFiles);

    // A complete record at once (refused peers, malformed or denied commands).
    void record(Channel channel, const QString& peer, const QString& command, std::optional<int> task,
                Outcome outcome);
    // A record whose outcome follows with finish().
    Entry begin(Channel channel, const QString& peer, const QString& command, std::optional<int> task);
    void finish(const Entry& entry, Outcome outcome);

    // The line without its outcome member and closing brace.
    static QByteArray recordHead(const QDateTime& when, Channel channel, const QString& peer,
                                 const QString& command, std::optional<int> task);
    // The closing part: outcome member, padding to a fixed width, "}\n".
    static QByteArray recordTail(Outcome outcome);
    static const char* outcomeName(Outcome outcome);

private:
    AuditLog();
    QString currentPath() const;
    bool write(const QByteArray& line, RotatingFile::Position* where);

    static AuditLog* s_instance;
    mutable QMutex m_mutex;
    QString m_path;
    RotatingFile m_file;
    bool m_warned = false;
};
