#pragma once

// Orders an administrator posts, as the command texts the agent's push
// channel takes, and how the agent's answers settle them. Pure functions.

#include <QJsonObject>
#include <QString>

#include <optional>

namespace Orders
{

constexpr int kMaxTextBytes = 4096;

// The command text for the order {"kind": ..., ...} under request id `id`,
// or nothing with the reason in *error.
std::optional<QString> commandText(const QJsonObject& order, qint64 id, QString* error);

// Kinds the agent never answers are done once pushed.
bool answered(const QString& kind);

// The agent route whose posts answer an order of this kind (by "_id"), or
// empty for report orders (settled by the report itself) and unanswered kinds.
QString resultRoute(const QString& kind);

// "done" or "failed" for a result body posted to the kind's result route.
QString stateOf(const QString& kind, const QJsonObject& result);

// Task number that collects a report category; -1 for an unknown one.
int reportTask(const QString& category);

} // namespace Orders
