// Start-up entry files and start-up orders: arbitrary bytes must parse
// without a crash or a read past the text.
#include "control/StartupAppsManager.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray text(reinterpret_cast<const char*>(data), static_cast<int>(size));
    for (const char* group : {"Desktop Entry", "Unit", "Service"}) {
        const QMap<QString, QString> keys = StartupAppsManager::iniGroup(text, QString::fromLatin1(group));
        for (auto it = keys.cbegin(); it != keys.cend(); ++it)
            if (it.key().isEmpty())
                std::abort();
    }
    const QString parameter = QString::fromUtf8(text.constData(), text.size());
    const StartupAppsManager::Order order = StartupAppsManager::parseOrder(parameter);
    const int fields = parameter.count(QLatin1Char('|')) + 1;
    if (order.id.has_value() != (fields == 3 || fields == 4))
        std::abort();
    return 0;
}
