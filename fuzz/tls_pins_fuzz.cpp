// Pinned-key lists from serverip.ini.
#include "comm/TlsSettings.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<int>(size));
    QString bad;
    const auto pins = TlsSettings::parsePins(text, &bad);
    if (!pins) {
        if (bad.isEmpty())
            std::abort();
        return 0;
    }
    // Whatever parses goes back into the same digests.
    for (const QByteArray& digest : *pins)
        if (digest.size() != 32)
            std::abort();
    const auto again = TlsSettings::parsePins(QString::fromLatin1(TlsSettings::curlPinText(*pins)));
    if (!again || *again != *pins)
        std::abort();
    return 0;
}
