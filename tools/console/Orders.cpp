#include "Orders.h"

#include <QJsonArray>

#include <map>

namespace Orders
{
namespace
{
const QString kAction = QStringLiteral("settings/InvSettingsOutput");
const QString kSeparator = QStringLiteral("#$#");

// Fields travel between "#$#" and "|" separators; a name holding either
// would be cut by the agent into another order.
bool plainField(const QString& s)
{
    return !s.isEmpty() && !s.contains(kSeparator) && !s.contains(QLatin1Char('|')) &&
           !s.contains(QLatin1Char('\0'));
}

std::optional<QString> fail(QString* error, const QString& why)
{
    *error = why;
    return std::nullopt;
}
} // namespace

int reportTask(const QString& category)
{
    static const std::map<QString, int> tasks{
        {QStringLiteral("agent"), 0},     {QStringLiteral("startup"), 1},  {QStringLiteral("services"), 2},
        {QStringLiteral("processes"), 3}, {QStringLiteral("software"), 4}, {QStringLiteral("hardware"), 7},
        {QStringLiteral("network"), 11},  {QStringLiteral("firewall"), 22}};
    const auto it = tasks.find(category);
    return it == tasks.end() ? -1 : it->second;
}

std::optional<QString> commandText(const QJsonObject& order, qint64 id, QString* error)
{
    const QString kind = order.value(QLatin1String("kind")).toString();
    const QString rid = QString::number(id);
    const auto text = [&](const QString& name) { return order.value(name).toString(); };
    const auto flag = [&](const QString& name) -> std::optional<bool> {
        const QJsonValue v = order.value(name);
        if (!v.isBool())
            return std::nullopt;
        return v.toBool();
    };
    if (kind == QLatin1String("kill")) {
        const QJsonValue pid = order.value(QLatin1String("pid"));
        if (!pid.isDouble() || pid.toDouble() < 1 || pid.toDouble() > 4194304 ||
            pid.toDouble() != static_cast<double>(pid.toInt()))
            return fail(error, QStringLiteral("\"pid\" must be a process id"));
        return QStringLiteral("ACT#$#3#$#1|%1|%2").arg(pid.toInt()).arg(rid);
    }
    if (kind == QLatin1String("service")) {
        static const std::map<QString, int> codes{
            {QStringLiteral("start"), 1}, {QStringLiteral("stop"), 2},   {QStringLiteral("restart"), 3},
            {QStringLiteral("mask"), 4},  {QStringLiteral("enable"), 5}, {QStringLiteral("disable"), 6}};
        const auto code = codes.find(text(QStringLiteral("action")));
        if (code == codes.end())
            return fail(error,
                        QStringLiteral("\"action\" must be start, stop, restart, mask, enable or disable"));
        if (!plainField(text(QStringLiteral("name"))))
            return fail(error, QStringLiteral("\"name\" must be a unit name without '|' or '#$#'"));
        return QStringLiteral("ACT#$#2#$#%1|%2|%3").arg(code->second).arg(text(QStringLiteral("name")), rid);
    }
    if (kind == QLatin1String("startup")) {
        const auto enable = flag(QStringLiteral("enable"));
        if (!enable || !plainField(text(QStringLiteral("name"))))
            return fail(error, QStringLiteral("a startup order needs \"name\" and \"enable\": true|false"));
        return QStringLiteral("ACT#$#1#$#%1|%2|%3")
            .arg(*enable ? QLatin1Char('1') : QLatin1Char('0'))
            .arg(text(QStringLiteral("name")), rid);
    }
    if (kind == QLatin1String("firewall")) {
        const auto enable = flag(QStringLiteral("enable"));
        if (!enable)
            return fail(error, QStringLiteral("a firewall order needs \"enable\": true|false"));
        return QStringLiteral("ACT#$#22#$#%1|0|0|%2").arg(*enable ? 1 : 0).arg(rid);
    }
    if (kind == QLatin1String("terminal")) {
        const QString command = text(QStringLiteral("command"));
        const QJsonValue asUser = order.value(QLatin1String("asUser"));
        if (command.trimmed().isEmpty() || command.contains(kSeparator) ||
            command.contains(QLatin1Char('\0')))
            return fail(error, QStringLiteral("\"command\" must be a non-empty command line without '#$#'"));
        if (!asUser.isUndefined() && !asUser.isBool())
            return fail(error, QStringLiteral("\"asUser\" must be true or false"));
        return QStringLiteral("RPT#$#18#$#%1|%2%3")
            .arg(rid, asUser.toBool() ? QStringLiteral("U|") : QString(), command);
    }
    if (kind == QLatin1String("osquery")) {
        const QString query = text(QStringLiteral("query"));
        if (!plainField(query))
            return fail(error, QStringLiteral("\"query\" must be a non-empty query without '|' or '#$#'"));
        return QStringLiteral("RPT#$#24#$#\"%1|%2\"").arg(rid, query);
    }
    if (kind == QLatin1String("report")) {
        const int task = reportTask(text(QStringLiteral("category")));
        if (task < 0)
            return fail(error, QStringLiteral("\"category\" must be a report category"));
        return QStringLiteral("RPT#$#%1#$#0").arg(task);
    }
    if (kind == QLatin1String("reload-schedule"))
        return QStringLiteral("MOD#$#AGENT_CONFIG_CHANGE");
    if (kind == QLatin1String("update"))
        return QStringLiteral("UPD#$#AGENT");
    if (kind == QLatin1String("reset-trace-log"))
        return QStringLiteral("RESET#$#TRACE_LOG");
    return fail(error, QStringLiteral("unknown order kind"));
}

bool answered(const QString& kind)
{
    return kind != QLatin1String("reload-schedule") && kind != QLatin1String("update") &&
           kind != QLatin1String("reset-trace-log");
}

QString resultRoute(const QString& kind)
{
    if (kind == QLatin1String("kill") || kind == QLatin1String("service") ||
        kind == QLatin1String("startup") || kind == QLatin1String("firewall"))
        return kAction;
    if (kind == QLatin1String("terminal"))
        return QStringLiteral("cmdAndPS/cmdOutput");
    if (kind == QLatin1String("osquery"))
        return QStringLiteral("cmdAndPS/osqueryoutput");
    return QString();
}

QString stateOf(const QString& kind, const QJsonObject& result)
{
    const int status = result.value(QLatin1String("status")).toInt(-1);
    bool ok = false;
    if (kind == QLatin1String("terminal"))
        ok = status == 2;
    else if (kind == QLatin1String("osquery"))
        ok = result.value(QLatin1String("Output")).isArray();
    else
        ok = status == 0;
    return ok ? QStringLiteral("done") : QStringLiteral("failed");
}

} // namespace Orders
