#include "comm/ReportSubmitter.h"

#include "comm/HttpManager.h"
#include "comm/Outbox.h"
#include "core/AuditLog.h"
#include "core/CLogger.h"

#include <QJsonDocument>

#include <cerrno>
#include <malloc.h>

bool ReportSubmitter::enter(const char* origin, const BusyGuard& guard)
{
    EDR_LOG->Debug(origin, "IN");
    if (guard.acquired())
        return true;
    EDR_LOG->Error(origin, errno, "%s", kBusyMessage);
    EDR_LOG->Debug(origin, "OUT");
    return false;
}

bool ReportSubmitter::submitReport(const char* origin, bool& busy, API_NAME route,
                                   const ReportMessages& messages,
                                   const std::function<bool(QJsonObject&)>& collect)
{
    BusyGuard guard(busy);
    if (!enter(origin, guard))
        return false;
    bool sent = false;
    {
        QJsonObject report;
        bool collected = false;
        try {
            collected = collect(report);
        } catch (...) {
            EDR_LOG->Error(origin, errno, "CATCHED");
        }
        OrderReport::noteSucceeded(collected);
        if (collected)
            sent = postObject(origin, route, report, messages.sent, messages.sendFailed);
        else
            EDR_LOG->Error(origin, errno, "%s", messages.collectFailed);
    }
    // A report's text and objects can run to megabytes; hand the freed heap
    // back so an idle daemon stays small between reports.
    ::malloc_trim(0);
    EDR_LOG->Debug(origin, "OUT");
    return sent;
}

bool ReportSubmitter::postObject(const char* origin, API_NAME route, const QJsonObject& object,
                                 const char* sent, const char* sendFailed)
{
    QMap<QString, QString> fields;
    // toJson() never yields a zero byte, so the text is whole.
    fields.insert(QStringLiteral("data"), QString::fromUtf8(QJsonDocument(object).toJson()));
    return postFields(origin, route, fields, sent, sendFailed);
}

bool ReportSubmitter::postFields(const char* origin, API_NAME route, const QMap<QString, QString>& fields,
                                 const char* sent, const char* sendFailed)
{
    Outbox* outbox = Outbox::active();
    // Results reach the server in the order they were made: a new one waits
    // behind those still pending.
    if (outbox && outbox->mustQueue(route) &&
        outbox->keep(origin, route, HttpManager::jsonBody(fields),
                     QStringLiteral("queued behind %1 earlier results").arg(outbox->pendingResults()))) {
        outbox->scheduleReplay();
        OrderReport::noteDelivered(false);
        return true;
    }
    QString response;
    HttpManager::Outcome outcome;
    const bool ok = HttpManager::getInstance()->sendDataToServer(true, ApiManager::getAPI(route), 3, fields,
                                                                 response, outcome);
    // A server error keeps the result for another try: not delivered yet.
    OrderReport::noteDelivered(ok && !outcome.serverFailed());
    if (ok)
        EDR_LOG->Info(origin, "%s", sent);
    else
        EDR_LOG->Error(origin, errno, "%s", sendFailed);
    EDR_LOG->Debug(origin, "Response: %s", qUtf8Printable(response));
    if (outbox) {
        if (outcome.serverFailed())
            outbox->keep(origin, route, outcome.body,
                         outcome.answered ? QStringLiteral("server answered HTTP %1").arg(outcome.status)
                                          : QStringLiteral("no answer from server"));
        else
            outbox->onPosted(origin, route);
    }
    return ok;
}
