#pragma once

// The schedule file the console serves to agents: one element per task,
// named after the task, holding Enabled, Run_on_Start, Interval and
// Retry_Interval. Pure functions.

#include <QByteArray>
#include <QJsonArray>
#include <QString>

#include <optional>
#include <vector>

namespace ScheduleFile
{

struct Task {
    QString name;
    bool enabled = false;
    bool runOnStart = true;
    quint32 interval = 1440;
    quint32 retry = 15;
};

// The agent's defaults, overlaid with what `xml` says (as the agent reads it).
// Nothing when the text is not well-formed.
std::optional<std::vector<Task>> parse(const QByteArray& xml);
QByteArray write(const std::vector<Task>& tasks);

QJsonArray toJson(const std::vector<Task>& tasks);
// Applies [{"name", "enabled"?, "runOnStart"?, "interval"?, "retry"?}] to
// tasks; false with the reason for an unknown name or a wrong type.
bool apply(const QJsonArray& edits, std::vector<Task>& tasks, QString* error);

} // namespace ScheduleFile
