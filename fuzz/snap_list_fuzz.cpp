// snap list table and snap.yaml -> snap records.
#include "inventory/SnapList.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray text(reinterpret_cast<const char*>(data), static_cast<int>(size));
    SnapList::parse(text);
    SnapList::summaryOf(text);
    return 0;
}
