// systemctl list-unit-files output into unit names, and how each is asked.
#include "control/ServiceManager.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QStringList names = ServiceManager::parseUnitFileList(
        QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)));
    for (const QString& name : names) {
        ServiceManager::isTemplateUnit(name);
        ServiceManager::canShareShowRun(name);
    }
    return 0;
}
