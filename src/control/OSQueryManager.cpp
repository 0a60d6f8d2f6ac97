#include "control/OSQueryManager.h"

#include "comm/ReportSubmitter.h"
#include "core/CLogger.h"
#include "core/Common.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

#include <cerrno>

OSQueryManager* OSQueryManager::s_instance = nullptr;

OSQueryManager* OSQueryManager::getInstance()
{
    if (!s_instance)
        s_instance = new OSQueryManager();
    return s_instance;
}

void OSQueryManager::releaseInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

OSQueryManager::OSQueryManager(const ToolRunner& runner) : m_runner(runner) {}

QString OSQueryManager::osqueryPath()
{
    return Common::getRootPath() + QStringLiteral("/osquery/osquery");
}

std::optional<QJsonArray> OSQueryManager::parseOutput(const QByteArray& output)
{
    const QJsonDocument doc = QJsonDocument::fromJson(QString::fromLatin1(output).toUtf8());
    if (!doc.isArray())
        return std::nullopt;
    QJsonArray rows = doc.array();
    if (rows.isEmpty())
        rows.append(QJsonObject{{QStringLiteral("Output"), QStringLiteral("NO DATA FOUND")}});
    return rows;
}

std::optional<OSQueryManager::Request> OSQueryManager::parseArgument(const QString& arg)
{
    const QString inner = arg.size() >= 2 ? arg.mid(1, arg.size() - 2) : QString();
    // A query holding '|' is cut there: the server never sends one.
    const QStringList parts = inner.split(QLatin1Char('|'), Qt::KeepEmptyParts);
    // osquery would read a query starting with '-' as one of its options.
    if (parts.size() < 2 || parts.at(1).startsWith(QLatin1Char('-')))
        return std::nullopt;
    return Request{parts.at(0), parts.at(1)};
}

bool OSQueryManager::executeQuery(const QString& query, QJsonArray& rows)
{
    const ToolResult r = m_runner.run(osqueryPath(), {QStringLiteral("--json"), query},
                                      Common::scaledMs(kQueryTimeoutMs), kMaxOutputBytes);
    if (!r.finished) {
        EDR_LOG->Error(Q_FUNC_INFO, r.timedOut ? ETIMEDOUT : (r.started ? errno : ENOENT),
                       "Failed to run OSQuery!");
        return false;
    }
    std::optional<QJsonArray> parsed = parseOutput(r.standardOutput);
    if (!parsed) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "OSQuery output is not in JSON Format!");
        return false;
    }
    rows = *parsed;
    return true;
}

bool OSQueryManager::sendRptToServer(const QString& arg, bool permitted)
{
    const char* origin = Q_FUNC_INFO;
    return ReportSubmitter::submitReport(origin, m_reportBusy, OSQUERY_OUTPUT,
                                         {"Failed to osquery output.",
                                          "Successfully send osquery output to server.",
                                          "Failed to send osquery output to server."},
                                         [this, &arg, origin, permitted](QJsonObject& body) {
                                             const std::optional<Request> request = parseArgument(arg);
                                             if (!request) {
                                                 // Nothing to run: counts as a failed query.
                                                 EDR_LOG->Error(origin, EINVAL, "Invalid Parameters!");
                                                 return false;
                                             }
                                             QJsonArray rows;
                                             if (!permitted || !executeQuery(request->query, rows))
                                                 return false;
                                             body.insert(QStringLiteral("_id"), request->id);
                                             body.insert(QStringLiteral("Output"), rows);
                                             return true;
                                         });
}
