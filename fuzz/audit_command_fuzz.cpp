// The command as audit.log writes it: any bytes become one JSON string on one
// line of UTF-8, from which the bytes come back exactly.
#include "core/AuditLog.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 4096)
        return 0;
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const QByteArray json = AuditLog::jsonString(bytes);
    if (QString::fromUtf8(json).toUtf8() != json)
        std::abort();
    for (const char c : json)
        if (static_cast<unsigned char>(c) < 0x20)
            std::abort();
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson("[" + json + "]", &error);
    if (error.error != QJsonParseError::NoError)
        std::abort();
    // U+DC80..U+DCFF stand for the bytes that were not UTF-8.
    const QString text = doc.array().at(0).toString();
    QByteArray back;
    for (int i = 0; i < text.size(); ++i) {
        const ushort u = text.at(i).unicode();
        if (u >= 0xDC80 && u <= 0xDCFF)
            back += static_cast<char>(u & 0xFF);
        else if (QChar::isHighSurrogate(u) && i + 1 < text.size())
            back += text.mid(i++, 2).toUtf8();
        else
            back += QString(text.at(i)).toUtf8();
    }
    if (back != bytes)
        std::abort();
    return 0;
}
