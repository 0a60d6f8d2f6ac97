// /proc/<pid>/net/{tcp,tcp6,udp,udp6} tables into port records.
#include "control/NetworkMonManager.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray table(reinterpret_cast<const char*>(data), static_cast<int>(size));
    for (const char* protocol : {"TCP", "TCP6", "UPD", "UPD6"}) {
        QJsonArray listening, connections;
        NetworkMonManager::parseConnectionTable(table, 1, QString::fromLatin1(protocol), QString(), QString(),
                                                listening, connections);
    }
    return 0;
}
