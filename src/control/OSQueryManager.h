#pragma once

#include "core/ToolRunner.h"

#include <QByteArray>
#include <QJsonArray>
#include <QString>

#include <optional>

// Runs one query of the osquery executable shipped under the agent's root
// directory and posts the rows.
class OSQueryManager
{
public:
    static OSQueryManager* getInstance();
    static void releaseInstance();

    explicit OSQueryManager(const ToolRunner& runner = ToolRunner());

    bool executeQuery(const QString& query, QJsonArray& rows);
    // Not permitted: nothing runs and the failure result (if any) is posted.
    bool sendRptToServer(const QString& arg, bool permitted = true);

    static QString osqueryPath(); // getRootPath() + "/osquery/osquery"

    // The rows osquery printed with --json, or nullopt when the output is not
    // a JSON array. No rows become the single {"Output": "NO DATA FOUND"}.
    // The bytes are taken as Latin-1 before parsing, so non-ASCII text arrives
    // at the server doubly encoded; the server side expects exactly that.
    static std::optional<QJsonArray> parseOutput(const QByteArray& output);

    // The argument is a quoted "id|query": the outer two characters are
    // dropped unseen. nullopt when there is no query part.
    struct Request {
        QString id;
        QString query;
    };
    static std::optional<Request> parseArgument(const QString& arg);

    static constexpr int kQueryTimeoutMs = 30000;
    static constexpr qint64 kMaxOutputBytes = 32 * 1024 * 1024;

private:
    static OSQueryManager* s_instance;

    ToolRunner m_runner;
    bool m_reportBusy = false;
};
