#include "comm/TlsSettings.h"

#include "core/CLogger.h"
#include "identity/ServerDetails.h"

#include <QHash>
#include <QMutex>
#include <QStringList>

namespace
{
constexpr int kSha256Size = 32;
const char kPinPrefix[] = "sha256//";

// The settings are read at every request and connection: the count goes to
// the trace log when it first applies and whenever it changes, not each time.
void notePinsInForce(const QString& pinnedKeys)
{
    const auto pins = TlsSettings::parsePins(pinnedKeys);
    if (!pins)
        return; // each channel refuses the bad entry and names it
    static QMutex mutex;
    static QHash<QString, QString> logged; // settings file -> pin text
    const QString file = ServerDetails::settingsFilePath();
    QMutexLocker lock(&mutex);
    const auto it = logged.constFind(file);
    if (it != logged.constEnd() && *it == pinnedKeys)
        return;
    logged.insert(file, pinnedKeys);
    EDR_LOG->Info(Q_FUNC_INFO, "TLS on; pinned keys in force (EDRPINNEDKEY): %d", int(pins->size()));
}
} // namespace

TlsSettings TlsSettings::current()
{
    const ServerDetails* server = ServerDetails::getInstance();
    TlsSettings s;
    s.enabled = server->getTlsEnabled();
    if (s.enabled) {
        s.caFile = server->getTlsCaFile();
        s.pinnedKeys = server->getTlsPinnedKeys();
        notePinsInForce(s.pinnedKeys);
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
