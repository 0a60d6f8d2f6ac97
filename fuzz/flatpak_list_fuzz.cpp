// flatpak list lines -> application records.
#include "inventory/FlatpakList.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray text(reinterpret_cast<const char*>(data), static_cast<int>(size));
    FlatpakList::parse(text);
    FlatpakList::bytesOf(QString::fromUtf8(text));
    return 0;
}
