// PCI id database and sysfs attribute texts -> maker name and link speed.
#include "inventory/NetworkAdapterInfo.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    // The first line doubles as the vendor file, so ids the database holds get looked up too.
    const QString vendor = NetworkAdapterInfo::sysfsId(bytes);
    NetworkAdapterInfo::findVendorName(bytes, vendor);
    NetworkAdapterInfo::findVendorName(bytes, QStringLiteral("8086"));
    NetworkAdapterInfo::findDeviceName(bytes, vendor, vendor);
    NetworkAdapterInfo::speedText(bytes);
    return 0;
}
