#include "SettingsFile.h"

#include <QSet>

namespace SettingsFile
{

std::optional<QStringList> toArguments(const QByteArray& text, const QStringList& known, QString* error)
{
    QStringList args;
    QSet<QString> seen;
    const QList<QByteArray> lines = text.split('\n');
    for (int i = 0; i < lines.size(); ++i) {
        const QString line = QString::fromUtf8(lines[i]).trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')) || line.startsWith(QLatin1Char(';')))
            continue;
        const auto fail = [&](const QString& why) {
            *error = QStringLiteral("line %1: %2").arg(i + 1).arg(why);
            return std::nullopt;
        };
        const int eq = line.indexOf(QLatin1Char('='));
        if (eq < 0)
            return fail(QStringLiteral("expected name = value"));
        const QString name = line.left(eq).trimmed();
        const QString value = line.mid(eq + 1).trimmed();
        if (!known.contains(name))
            return fail(QStringLiteral("unknown setting \"%1\"").arg(name));
        if (seen.contains(name))
            return fail(QStringLiteral("%1 is set twice").arg(name));
        if (value.isEmpty())
            return fail(QStringLiteral("%1 has no value (comment the line out for the default)").arg(name));
        seen.insert(name);
        // One argument with '=', so a value starting with '-' stays a value.
        args << QStringLiteral("--") + name + QLatin1Char('=') + value;
    }
    return args;
}

} // namespace SettingsFile
