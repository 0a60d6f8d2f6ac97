#include "control/ActionResult.h"

#include "comm/ReportSubmitter.h"
#include "core/AuditLog.h"
#include "core/CLogger.h"

bool ActionResult::finish(const char* origin, QJsonObject& result, bool done, const QString& message,
                          const QString& infoLine, const char* sent, const char* sendFailed)
{
    OrderReport::noteSucceeded(done);
    result.insert(QStringLiteral("status"), done ? 0 : 1);
    result.insert(QStringLiteral("message"), message);
    EDR_LOG->Info(origin, "%s", qUtf8Printable(infoLine));
    const bool posted = ReportSubmitter::postObject(origin, ACTION_RESULT, result, sent, sendFailed);
    EDR_LOG->Debug(origin, "OUT");
    return posted;
}
