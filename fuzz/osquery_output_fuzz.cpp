// osquery --json output and osquery orders.
#include "control/OSQueryManager.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const std::optional<QJsonArray> rows = OSQueryManager::parseOutput(bytes);
    if (rows && rows->isEmpty())
        std::abort(); // no rows always become the "NO DATA FOUND" row

    const std::optional<OSQueryManager::Request> request =
        OSQueryManager::parseArgument(QString::fromUtf8(bytes.constData(), bytes.size()));
    if (request && (request->id.contains(QLatin1Char('|')) || request->query.contains(QLatin1Char('|'))))
        std::abort();
    return 0;
}
