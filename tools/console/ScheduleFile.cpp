#include "ScheduleFile.h"

#include <QJsonObject>
#include <QXmlStreamReader>

#include <utility>

namespace ScheduleFile
{
namespace
{
std::vector<Task> defaults()
{
    static const char* const names[] = {"AgentInfo",
                                        "StartUp",
                                        "Services",
                                        "Processes",
                                        "InstalledSoft",
                                        "TaskSchedule",
                                        "Network",
                                        "HardwareInfo",
                                        "WindowsUpdates",
                                        "Registry",
                                        "Explorer",
                                        "Network_Mon",
                                        "AppCon_Logs",
                                        "Quorvex_Logs",
                                        "WebProt_Logs",
                                        "Network_Logs",
                                        "Event_Logs",
                                        "CReports_Logs",
                                        "MTasks",
                                        "Termina",
                                        "Powershel",
                                        "ActionResponse",
                                        "WindowsFirewallStatus",
                                        "ASR_Rules",
                                        "OS_Query"};
    std::vector<Task> tasks;
    for (const char* n : names)
        tasks.push_back({QLatin1String(n), false, true, 1440, 15});
    const auto set = [&](int i, bool enabled, quint32 interval) {
        tasks[static_cast<size_t>(i)].enabled = enabled;
        tasks[static_cast<size_t>(i)].interval = interval;
    };
    set(0, true, 15);
    set(1, true, 180);
    set(2, true, 180);
    set(3, true, 180);
    set(4, true, 1440);
    set(5, true, 1440);
    set(7, true, 180);
    set(11, true, 180);
    set(16, true, 60);
    return tasks;
}

// strtol in base 10, cut to 32 bits, as the agent reads the numbers.
quint32 number(const QString& text)
{
    const QString t = text.trimmed();
    int i = 0;
    bool negative = false;
    if (i < t.size() && (t[i] == QLatin1Char('-') || t[i] == QLatin1Char('+')))
        negative = t[i++] == QLatin1Char('-');
    qint64 v = 0;
    for (; i < t.size() && t[i].isDigit() && v < (qint64(1) << 40); ++i)
        v = v * 10 + t[i].digitValue();
    return static_cast<quint32>(negative ? -v : v);
}
} // namespace

std::optional<std::vector<Task>> parse(const QByteArray& xml)
{
    std::vector<Task> tasks = defaults();
    // Several top-level elements side by side: read them under a root of our own.
    QByteArray text = xml.left(xml.indexOf('\0') < 0 ? xml.size() : xml.indexOf('\0'));
    if (text.trimmed().startsWith("<?xml"))
        text = text.mid(text.indexOf("?>") + 2);
    QXmlStreamReader r(QByteArray("<schedule>") + text + QByteArray("</schedule>"));
    r.readNextStartElement();
    std::vector<bool> seen(tasks.size(), false);
    while (r.readNextStartElement()) {
        Task* task = nullptr;
        for (size_t i = 0; i < tasks.size(); ++i)
            if (tasks[i].name == r.name() && !seen[i]) {
                task = &tasks[i];
                seen[i] = true;
            }
        // Only the first child of each name counts.
        bool seenChild[4] = {false, false, false, false};
        const auto first = [&](int i) { return !std::exchange(seenChild[i], true); };
        while (r.readNextStartElement()) {
            const QString name = r.name().toString();
            const QString value = r.readElementText(QXmlStreamReader::SkipChildElements);
            if (!task)
                continue;
            if (name == QLatin1String("Enabled") && first(0))
                task->enabled = number(value) != 0;
            else if (name == QLatin1String("Run_on_Start") && first(1))
                task->runOnStart = number(value) != 0;
            else if (name == QLatin1String("Interval") && first(2))
                task->interval = number(value);
            else if (name == QLatin1String("Retry_Interval") && first(3))
                task->retry = number(value);
        }
    }
    if (r.hasError())
        return std::nullopt;
    return tasks;
}

QByteArray write(const std::vector<Task>& tasks)
{
    QByteArray out = "<?xml version=\"1.0\"?>\n";
    for (const Task& t : tasks)
        out += QStringLiteral("<%1><Enabled>%2</Enabled><Run_on_Start>%3</Run_on_Start>"
                              "<Interval>%4</Interval><Retry_Interval>%5</Retry_Interval></%1>\n")
                   .arg(t.name)
                   .arg(t.enabled ? 1 : 0)
                   .arg(t.runOnStart ? 1 : 0)
                   .arg(t.interval)
                   .arg(t.retry)
                   .toUtf8();
    return out;
}

QJsonArray toJson(const std::vector<Task>& tasks)
{
    QJsonArray out;
    for (size_t i = 0; i < tasks.size(); ++i)
        out.append(QJsonObject{{QStringLiteral("task"), static_cast<int>(i)},
                               {QStringLiteral("name"), tasks[i].name},
                               {QStringLiteral("enabled"), tasks[i].enabled},
                               {QStringLiteral("runOnStart"), tasks[i].runOnStart},
                               {QStringLiteral("interval"), static_cast<qint64>(tasks[i].interval)},
                               {QStringLiteral("retry"), static_cast<qint64>(tasks[i].retry)}});
    return out;
}

bool apply(const QJsonArray& edits, std::vector<Task>& tasks, QString* error)
{
    std::vector<Task> next = tasks;
    for (const QJsonValue& v : edits) {
        const QJsonObject e = v.toObject();
        const QString name = e.value(QLatin1String("name")).toString();
        Task* task = nullptr;
        for (Task& t : next)
            if (t.name == name)
                task = &t;
        if (!task) {
            *error = QStringLiteral("unknown task \"%1\"").arg(name.left(64));
            return false;
        }
        for (const char* key : {"enabled", "runOnStart"}) {
            const QJsonValue f = e.value(QLatin1String(key));
            if (f.isUndefined())
                continue;
            if (!f.isBool()) {
                *error = QStringLiteral("\"%1\" must be true or false").arg(QLatin1String(key));
                return false;
            }
            (qstrcmp(key, "enabled") == 0 ? task->enabled : task->runOnStart) = f.toBool();
        }
        for (const char* key : {"interval", "retry"}) {
            const QJsonValue f = e.value(QLatin1String(key));
            if (f.isUndefined())
                continue;
            const double d = f.toDouble(-1);
            if (!f.isDouble() || d < 1 || d > 4294967295.0 ||
                d != static_cast<double>(static_cast<qint64>(d))) {
                *error = QStringLiteral("\"%1\" must be a whole number of minutes, at least 1")
                             .arg(QLatin1String(key));
                return false;
            }
            (qstrcmp(key, "interval") == 0 ? task->interval : task->retry) = static_cast<quint32>(d);
        }
    }
    tasks = next;
    return true;
}

} // namespace ScheduleFile
