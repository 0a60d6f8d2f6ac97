// dpkg status database -> installed package records.
#include "inventory/InstallSoftManager.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    InstallSoftManager::parseDpkgStatus(
        QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)));
    return 0;
}
