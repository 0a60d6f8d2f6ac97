// EDRPINNEDKEY read from serverip.ini's own lines.
#include "comm/TlsSettings.h"
#include "identity/ServerDetails.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray ini(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const QString text = ServerDetails::pinnedKeysFromIni(ini);
    if (text.contains(QLatin1Char('\n')))
        std::abort();
    const auto pins = TlsSettings::parsePins(text);
    if (!pins)
        return 0;
    // Whatever is in force, written back as one line with a comment after
    // it, reads back the same.
    const QByteArray line =
        "[Server]\r\nEDRPINNEDKEY = " + TlsSettings::curlPinText(*pins) + " ; comment; another\r\n";
    const auto again = TlsSettings::parsePins(ServerDetails::pinnedKeysFromIni(line));
    if (!again || *again != *pins)
        std::abort();
    return 0;
}
