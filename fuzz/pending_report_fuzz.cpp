// Pending-report files are read back from disk: any bytes must parse or be
// refused, and an accepted header must encode back to the same line.
#include "comm/PendingReport.h"

#include <QByteArray>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes =
        QByteArray::fromRawData(reinterpret_cast<const char*>(data), static_cast<int>(size));
    int used = 0;
    const std::optional<PendingReport::Header> header = PendingReport::parseHeader(bytes, &used);
    if (header && PendingReport::encodeHeader(*header) != bytes.left(used))
        std::abort();
    return 0;
}
