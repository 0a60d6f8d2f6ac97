// ss -tulnpH output into listening records.
#include "control/NetworkMonManager.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    QJsonArray listening;
    NetworkMonManager::parseSsOutput(QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)),
                                     listening, [](int) { return QString(); });
    return 0;
}
