// lsof -P -n -i output into the listening and connection records.
#include "control/NetworkMonManager.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    QJsonArray listening, connections;
    NetworkMonManager::parseLsofOutput(
        QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)), listening, connections);
    return 0;
}
