#pragma once

#include "comm/ApiManager.h"

#include <QJsonObject>
#include <QString>

// The end every order shares: status and message into the result, one Info
// line, the post to the action-result route, Debug OUT.
class ActionResult
{
public:
    // infoLine is the trace text, which differs from the wire message for some
    // orders. Returns whether the post went through.
    static bool finish(const char* origin, QJsonObject& result, bool done, const QString& message,
                       const QString& infoLine, const char* sent, const char* sendFailed);
};
