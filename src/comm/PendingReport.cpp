#include "comm/PendingReport.h"

#include <QList>

namespace
{
constexpr char kMagic[] = "EDR-PENDING/1";

// Plain decimal digits; canonical also refuses leading zeros, so a header
// has exactly one spelling.
bool parseNumber(const QByteArray& text, qint64* out, bool canonical = true)
{
    if (text.isEmpty() || text.size() > 18 || (canonical && text.size() > 1 && text.at(0) == '0'))
        return false;
    for (char c : text)
        if (c < '0' || c > '9')
            return false;
    bool ok = false;
    *out = text.toLongLong(&ok);
    return ok;
}
} // namespace

std::optional<PendingReport::Header> PendingReport::forRoute(API_NAME route)
{
    Header h;
    h.route = static_cast<int>(route);
    // Task numbers follow the dispatcher; order results share "ActionResponse".
    switch (route) {
    case AGENT_INFO:
        h.task = 0;
        break;
    case STARTUP_APPS:
        h.task = 1;
        break;
    case SERVICES:
        h.task = 2;
        break;
    case PROCESSES:
        h.task = 3;
        break;
    case INSTALLED_SOFTWARE:
        h.task = 4;
        break;
    case HARDWARE_INFO:
        h.task = 7;
        break;
    case NETWORK_MONITORING:
        h.task = 11;
        break;
    case FIREWALL_STATUS:
        h.task = 22;
        break;
    case COMMAND_OUTPUT:
        h.task = 18;
        h.kind = Kind::Result;
        break;
    case ACTION_RESULT:
        h.task = 21;
        h.kind = Kind::Result;
        break;
    case OSQUERY_OUTPUT:
        h.task = 24;
        h.kind = Kind::Result;
        break;
    default:
        return std::nullopt;
    }
    return h;
}

const char* PendingReport::kindName(Kind kind)
{
    return kind == Kind::Result ? "result" : "snapshot";
}

QByteArray PendingReport::encodeHeader(const Header& h)
{
    QByteArray line = QByteArray::number(h.task).rightJustified(4, '0');
    line += ' ';
    line += kMagic;
    line += " kind=";
    line += kindName(h.kind);
    line += " route=" + QByteArray::number(h.route);
    line += " mode=" + QByteArray::number(h.mode);
    line += " created=" + QByteArray::number(h.createdMs);
    line += " length=" + QByteArray::number(h.length);
    line += '\n';
    return line;
}

std::optional<PendingReport::Header> PendingReport::parseHeader(const QByteArray& data, int* headerBytes)
{
    const int end = data.indexOf('\n');
    if (end < 0 || end >= kMaxHeaderBytes)
        return std::nullopt;
    const QList<QByteArray> tokens = data.left(end).split(' ');
    if (tokens.size() != 7 || tokens.at(0).size() != 4 || tokens.at(1) != kMagic)
        return std::nullopt;
    Header h;
    qint64 task = 0;
    if (!parseNumber(tokens.at(0), &task, false) || task > 24)
        return std::nullopt;
    h.task = static_cast<int>(task);
    static const char* const keys[] = {"kind=", "route=", "mode=", "created=", "length="};
    qint64 values[5] = {};
    for (int i = 0; i < 5; ++i) {
        const QByteArray& token = tokens.at(i + 2);
        if (!token.startsWith(keys[i]))
            return std::nullopt;
        const QByteArray value = token.mid(static_cast<int>(qstrlen(keys[i])));
        if (i == 0) {
            if (value == "snapshot")
                h.kind = Kind::Snapshot;
            else if (value == "result")
                h.kind = Kind::Result;
            else
                return std::nullopt;
        } else if (!parseNumber(value, &values[i])) {
            return std::nullopt;
        }
    }
    if (values[1] > CONFIG_FILE || values[2] > 1000)
        return std::nullopt;
    h.route = static_cast<int>(values[1]);
    h.mode = static_cast<int>(values[2]);
    h.createdMs = values[3];
    h.length = values[4];
    // Only what this agent writes: a route it keeps, under that route's
    // task and kind, as a JSON body.
    const std::optional<Header> expected = forRoute(static_cast<API_NAME>(h.route));
    if (!expected || expected->task != h.task || expected->kind != h.kind || h.mode != 3)
        return std::nullopt;
    if (headerBytes)
        *headerBytes = end + 1;
    return h;
}
