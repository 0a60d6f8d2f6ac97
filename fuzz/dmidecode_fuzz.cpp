// dmidecode text -> DMI records, then the processor and memory additions.
#include "inventory/CDmiInfo.h"
#include "inventory/CHardwareInfo.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    QJsonArray records;
    CDmiInfo::parseDmiOutput(CDmiInfo::decodeOutput(bytes), records);
    QJsonArray cpus = records;
    CHardwareInfo::enrichProcessors(cpus);
    CHardwareInfo::enrichMemoryDevices(records);
    return 0;
}
