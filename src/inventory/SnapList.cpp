#include "inventory/SnapList.h"

#include <QStringList>

namespace
{

struct Column {
    QString title;
    int start = 0;
};

// Whitespace-separated words of a line with the position each starts at.
QVector<Column> wordsOf(const QString& line)
{
    QVector<Column> words;
    int i = 0;
    while (i < line.size()) {
        while (i < line.size() && line.at(i).isSpace())
            ++i;
        const int start = i;
        while (i < line.size() && !line.at(i).isSpace())
            ++i;
        if (i > start)
            words.append({line.mid(start, i - start), start});
    }
    return words;
}

int columnIndex(const QVector<Column>& columns, const char* title)
{
    for (int i = 0; i < columns.size(); ++i)
        if (columns.at(i).title == QLatin1String(title))
            return i;
    return -1;
}

// The cells of a row: one per word when every column has one (snap prints
// "-" for an empty cell), else cut at the header's column starts, which the
// table aligns on; a cell that does not start at its column makes the row
// unreadable.
std::optional<QStringList> cellsOf(const QString& row, const QVector<Column>& header)
{
    const QVector<Column> words = wordsOf(row);
    QStringList cells;
    if (words.size() == header.size()) {
        for (const Column& w : words)
            cells << w.title;
        return cells;
    }
    for (int i = 0; i < header.size(); ++i) {
        const int start = header.at(i).start;
        if (start > 0 && start < row.size() && !row.at(start - 1).isSpace())
            return std::nullopt;
        const int length = i + 1 < header.size() ? header.at(i + 1).start - start : -1;
        const QString cell = row.mid(start, length).trimmed();
        if (cell.contains(QLatin1Char(' ')))
            return std::nullopt;
        cells << cell;
    }
    return cells;
}

QString unquoteSingle(const QString& text)
{
    QString out;
    for (int i = 1; i < text.size(); ++i) {
        if (text.at(i) == QLatin1Char('\'')) {
            if (i + 1 < text.size() && text.at(i + 1) == QLatin1Char('\'')) {
                out += QLatin1Char('\'');
                ++i;
                continue;
            }
            break;
        }
        out += text.at(i);
    }
    return out;
}

QString unquoteDouble(const QString& text)
{
    QString out;
    for (int i = 1; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c == QLatin1Char('"'))
            break;
        if (c != QLatin1Char('\\') || i + 1 >= text.size()) {
            out += c;
            continue;
        }
        const QChar e = text.at(++i);
        switch (e.unicode()) {
        case 'n':
            out += QLatin1Char('\n');
            break;
        case 't':
            out += QLatin1Char('\t');
            break;
        case '0':
            out += QChar(0);
            break;
        case 'u':
        case 'x': {
            const int digits = e == QLatin1Char('u') ? 4 : 2;
            bool ok = false;
            const uint code = text.mid(i + 1, digits).toUInt(&ok, 16);
            if (ok && text.mid(i + 1, digits).size() == digits) {
                out += QChar(code);
                i += digits;
            } else {
                out += e;
            }
            break;
        }
        default:
            out += e;
            break;
        }
    }
    return out;
}

bool isIndented(const QString& line)
{
    return !line.isEmpty() && (line.at(0) == QLatin1Char(' ') || line.at(0) == QLatin1Char('\t'));
}

} // namespace

bool SnapList::isSafeName(const QString& name)
{
    if (name.isEmpty() || name.size() > 128 || name.startsWith(QLatin1Char('.')))
        return false;
    for (const QChar c : name) {
        const ushort u = c.unicode();
        const bool ok = (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || (u >= '0' && u <= '9') ||
                        u == '-' || u == '_' || u == '.' || u == '+';
        if (!ok)
            return false;
    }
    return true;
}

bool SnapList::isSafeRevision(const QString& revision)
{
    if (revision.isEmpty() || revision.size() > 32)
        return false;
    for (int i = 0; i < revision.size(); ++i) {
        const ushort u = revision.at(i).unicode();
        if (!((u >= '0' && u <= '9') || (i == 0 && u == 'x')))
            return false;
    }
    return revision != QLatin1String("x");
}

std::optional<QVector<SnapList::Snap>> SnapList::parse(const QByteArray& output, int* skipped)
{
    if (skipped)
        *skipped = 0;
    const QStringList lines = QString::fromUtf8(output).split(QLatin1Char('\n'));
    int at = 0;
    while (at < lines.size() && lines.at(at).trimmed().isEmpty())
        ++at;
    if (at == lines.size())
        return QVector<Snap>(); // nothing installed
    QString headerLine = lines.at(at);
    if (headerLine.endsWith(QLatin1Char('\r')))
        headerLine.chop(1);
    const QVector<Column> header = wordsOf(headerLine);
    const int name = columnIndex(header, "Name");
    const int version = columnIndex(header, "Version");
    const int rev = columnIndex(header, "Rev");
    const int notes = columnIndex(header, "Notes");
    if (name < 0 || version < 0 || rev < 0)
        return std::nullopt;

    QVector<Snap> snaps;
    for (++at; at < lines.size(); ++at) {
        QString row = lines.at(at);
        if (row.endsWith(QLatin1Char('\r')))
            row.chop(1);
        if (row.trimmed().isEmpty())
            continue;
        const std::optional<QStringList> cells = cellsOf(row, header);
        if (!cells || !isSafeName(cells->at(name)) || !isSafeRevision(cells->at(rev))) {
            if (skipped)
                ++*skipped;
            continue;
        }
        if (notes >= 0 && cells->at(notes).split(QLatin1Char(',')).contains(QLatin1String("disabled")))
            continue;
        Snap s;
        s.name = cells->at(name);
        s.version = cells->at(version) == QLatin1String("-") ? QString() : cells->at(version);
        s.revision = cells->at(rev);
        snaps.append(s);
    }
    return snaps;
}

QString SnapList::summaryOf(const QByteArray& snapYaml)
{
    const QStringList lines = QString::fromUtf8(snapYaml).split(QLatin1Char('\n'));
    for (int i = 0; i < lines.size(); ++i) {
        QString line = lines.at(i);
        if (line.endsWith(QLatin1Char('\r')))
            line.chop(1);
        if (!line.startsWith(QLatin1String("summary:")))
            continue;
        const QString value = line.mid(8).trimmed();
        if (value.startsWith(QLatin1Char('\'')))
            return unquoteSingle(value);
        if (value.startsWith(QLatin1Char('"')))
            return unquoteDouble(value);

        // Plain text (a " #" starts a comment) or a block scalar, both
        // possibly continued on indented lines.
        const bool literal = value.startsWith(QLatin1Char('|'));
        const bool block = literal || value.startsWith(QLatin1Char('>'));
        QStringList parts;
        if (!block) {
            const int comment = value.indexOf(QLatin1String(" #"));
            const QString text = (comment >= 0 ? value.left(comment) : value).trimmed();
            if (!text.isEmpty() && !text.startsWith(QLatin1Char('#')))
                parts << text;
        }
        for (int j = i + 1; j < lines.size() && isIndented(lines.at(j)); ++j)
            parts << lines.at(j).trimmed();
        return parts.join(literal ? QLatin1Char('\n') : QLatin1Char(' ')).trimmed();
    }
    return QString();
}
