#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

// What serverip.ini asks of TLS for both channels, read afresh at each use.
class TlsSettings
{
public:
    bool enabled = false;
    QString caFile;     // empty: the system's trust store
    QString pinnedKeys; // raw "sha256//<base64>[;...]", empty: no pin

    static TlsSettings current();

    // "sha256//<base64>" entries separated by ';' to their 32-byte digests;
    // empty text gives an empty list. nullopt, with the offending entry in
    // *error, when any entry has another form.
    static std::optional<QList<QByteArray>> parsePins(const QString& text, QString* error = nullptr);
    // The digests back in libcurl's form.
    static QByteArray curlPinText(const QList<QByteArray>& digests);
};
