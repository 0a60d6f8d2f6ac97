#include "inventory/FlatpakList.h"

#include "identity/SizeOperation.h"

#include <QStringList>

#include <cmath>
#include <cstring>

bool FlatpakList::isApplicationId(const QString& id)
{
    if (id.size() > 255 || !id.contains(QLatin1Char('.')))
        return false;
    for (const QString& element : id.split(QLatin1Char('.'))) {
        if (element.isEmpty() || element.at(0).isDigit())
            return false;
        for (const QChar c : element) {
            const ushort u = c.unicode();
            if (!((u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || (u >= '0' && u <= '9') || u == '_' ||
                  u == '-'))
                return false;
        }
    }
    return true;
}

std::optional<long long> FlatpakList::bytesOf(const QString& text)
{
    QString t = text.trimmed();
    int split = 0;
    while (split < t.size() &&
           (t.at(split).isDigit() || t.at(split) == QLatin1Char('.') || t.at(split) == QLatin1Char(',')))
        ++split;
    QString number = t.left(split);
    number.replace(QLatin1Char(','), QLatin1Char('.'));
    // Any kind of space may separate the unit (U+00A0 and U+202F included, or
    // the '?' they become in an ASCII locale).
    int unitAt = split;
    while (unitAt < t.size() && !t.at(unitAt).isLetter())
        ++unitAt;
    if (unitAt - split > 2)
        return std::nullopt;
    const QString unit = t.mid(unitAt).trimmed().toLower();
    bool ok = false;
    const double value = number.toDouble(&ok);
    if (!ok || !std::isfinite(value))
        return std::nullopt;

    static const char* const prefixes = "kmgtpe";
    double factor = 0;
    if (unit == QLatin1String("bytes") || unit == QLatin1String("byte") || unit == QLatin1String("b")) {
        factor = 1;
    } else if ((unit.size() == 2 || (unit.size() == 3 && unit.at(1) == QLatin1Char('i'))) &&
               unit.endsWith(QLatin1Char('b'))) {
        const char letter = unit.at(0).toLatin1();
        const char* p = letter ? std::strchr(prefixes, letter) : nullptr;
        if (!p)
            return std::nullopt;
        factor = std::pow(unit.size() == 3 ? 1024.0 : 1000.0, double(p - prefixes + 1));
    } else {
        return std::nullopt;
    }
    const double bytes = value * factor;
    if (bytes >= 9.2e18)
        return std::nullopt;
    // Rounded: 8.2 kB is 8200 bytes, not the 8199.999... of the product.
    return std::llround(bytes);
}

std::optional<QVector<FlatpakList::App>> FlatpakList::parse(const QByteArray& output, int* skipped)
{
    int bad = 0;
    bool anyLine = false;
    QVector<App> apps;
    for (QString line : QString::fromUtf8(output).split(QLatin1Char('\n'))) {
        if (line.endsWith(QLatin1Char('\r')))
            line.chop(1);
        if (line.trimmed().isEmpty())
            continue;
        anyLine = true;
        const QStringList f = line.split(QLatin1Char('\t'));
        // A header, should a flatpak print one here.
        if (f.size() >= 5 && f.at(0) == QLatin1String("Application ID"))
            continue;
        if (f.size() < 5 || !isApplicationId(f.at(0))) {
            ++bad;
            continue;
        }
        App a;
        a.id = f.at(0);
        a.version = f.at(1).trimmed() == QLatin1String("-") ? QString() : f.at(1).trimmed();
        const std::optional<long long> bytes = bytesOf(f.at(2));
        if (bytes)
            a.size = SizeOperation::getBytesSizeInString(*bytes);
        a.name = f.at(3);
        // A description holding a tab would spill over into further columns.
        a.description = f.mid(4).join(QLatin1Char('\t'));
        apps.append(a);
    }
    if (skipped)
        *skipped = bad;
    if (anyLine && apps.isEmpty() && bad > 0)
        return std::nullopt;
    return apps;
}
