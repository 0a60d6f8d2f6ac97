// lsblk -J output -> "Disk" and "Volumes" arrays.
#include "inventory/CHardwareInfo.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    QJsonArray disks;
    QJsonArray volumes;
    CHardwareInfo::parseDisks(bytes, disks);
    CHardwareInfo::parsePartitions(bytes, volumes);
    return 0;
}
