// Terminal orders: "id|command" and "id|U|command".
#include "control/TerminalManager.h"

#include <QProcess>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString arg = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const std::optional<TerminalManager::Request> request = TerminalManager::parseArgument(arg);
    if (!request)
        return 0;
    if (request->id.isEmpty() || request->id.contains(QLatin1Char('|')) || !arg.endsWith(request->command))
        std::abort();
    (void)QProcess::splitCommand(request->command);
    return 0;
}
