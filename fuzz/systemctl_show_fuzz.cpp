// systemctl show output for several units: blocks, then properties per block.
#include "control/ServiceManager.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QList<QStringList> blocks = ServiceManager::splitShowBlocks(
        QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)));
    for (const QStringList& block : blocks) {
        ServiceInfo info;
        ServiceManager::applyProperties(block, info);
        info.toJson();
    }
    return 0;
}
