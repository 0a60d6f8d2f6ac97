// Push-channel messages arrive from the network: any bytes must parse.
#include "push/PushCommand.h"

#include <QString>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString message = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const PushCommand command = PushCommand::parse(message);
    if (command.kind == PushCommand::Report || command.kind == PushCommand::Action)
        (void)command.parameter.size();
    return 0;
}
