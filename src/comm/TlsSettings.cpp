#include "comm/TlsSettings.h"

#include "identity/ServerDetails.h"

#include <QStringList>

namespace
{
constexpr int kSha256Size = 32;
const char kPinPrefix[] = "sha256//";
} // namespace

TlsSettings TlsSettings::current()
{
    const ServerDetails* server = ServerDetails::getInstance();
    TlsSettings s;
    s.enabled = server->getTlsEnabled();
    if (s.enabled) {
        s.caFile = server->getTlsCaFile();
        s.pinnedKeys = server->getTlsPinnedKeys();
    }
    return s;
}

std::optional<QList<QByteArray>> TlsSettings::parsePins(const QString& text, QString* error)
{
    QList<QByteArray> digests;
    const QStringList entries = text.split(QLatin1Char(';'), Qt::SkipEmptyParts);
    for (const QString& raw : entries) {
        const QString entry = raw.trimmed();
        if (entry.isEmpty())
            continue;
        bool ok = entry.startsWith(QLatin1String(kPinPrefix));
        QByteArray digest;
        if (ok) {
            const auto decoded = QByteArray::fromBase64Encoding(
                entry.mid(int(sizeof kPinPrefix) - 1).toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
            ok = decoded.decodingStatus == QByteArray::Base64DecodingStatus::Ok &&
                 decoded.decoded.size() == kSha256Size;
            digest = decoded.decoded;
        }
        if (!ok) {
            if (error)
                *error = entry;
            return std::nullopt;
        }
        digests << digest;
    }
    return digests;
}

QByteArray TlsSettings::curlPinText(const QList<QByteArray>& digests)
{
    QByteArray out;
    for (const QByteArray& d : digests) {
        if (!out.isEmpty())
            out += ';';
        out += kPinPrefix + d.toBase64();
    }
    return out;
}
