#include "inventory/CDmiInfo.h"

#include "core/CLogger.h"

#include <QJsonObject>
#include <QStringList>

CDmiInfo::CDmiInfo() = default;

CDmiInfo::CDmiInfo(const ToolRunner& runner, int timeoutMs) : m_runner(runner), m_timeoutMs(timeoutMs) {}

QString CDmiInfo::decodeOutput(const QByteArray& output)
{
    const int zero = output.indexOf('\0');
    return QString::fromLocal8Bit(output.constData(), zero >= 0 ? zero : output.size());
}

bool CDmiInfo::getDataToJSON(QJsonArray& out, const QString& type)
{
    const ToolResult r = m_runner.run(QStringLiteral("dmidecode"),
                                      {QStringLiteral("-q"), QStringLiteral("-t"), type}, m_timeoutMs);
    // A VM without tables or a non-root run just yields nothing; a run cut
    // short may have stopped mid-structure, so its output is not trusted.
    if (!r.started || r.timedOut || r.crashed) {
        EDR_LOG->Debug(Q_FUNC_INFO, "dmidecode -t %s did not complete: %s", qUtf8Printable(type),
                       r.timedOut ? "timed out" : qUtf8Printable(r.errorText));
        return !out.isEmpty();
    }
    parseDmiOutput(decodeOutput(r.standardOutput), out);
    return !out.isEmpty();
}

void CDmiInfo::parseDmiOutput(const QString& text, QJsonArray& out)
{
    const QStringList blocks = text.split(QStringLiteral("\n\n"));
    const QString tab(QLatin1Char('\t'));
    for (const QString& block : blocks) {
        QJsonObject record;
        QString key;
        QString value;
        bool found = false;
        const QStringList lines = block.split(QLatin1Char('\n'));
        for (QString line : lines) {
            const bool startsWithTab = line.startsWith(QLatin1Char('\t'));
            const bool twoTabs = startsWithTab && line.size() > 1 && line.at(1) == QLatin1Char('\t');
            if (startsWithTab && !twoTabs) {
                line.remove(tab);
                const QStringList parts = line.split(QStringLiteral(": "));
                key = parts.at(0);
                // A list header ("Characteristics:") keeps the value of the line before it.
                if (parts.size() >= 2)
                    value = parts.at(1);
                record.insert(key, value);
                found = true;
            } else if (twoTabs) {
                line.remove(tab);
                value = value + QLatin1Char('\n') + line;
                record.insert(key, value);
                found = true;
            } else if (line.contains(QLatin1String("Array"))) {
                // Physical Memory Array blocks are not memory devices.
                break;
            }
        }
        if (found)
            out.append(record);
    }
}
