// /proc/<pid>/status into the process record, and the comm/cmdline line cut.
#include "control/ProcessInfo.h"
#include "control/ProcessManager.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    QJsonObject record;
    ProcessManager::parseStatus(bytes, record);
    ProcessInfo::firstLineText(bytes);
    return 0;
}
