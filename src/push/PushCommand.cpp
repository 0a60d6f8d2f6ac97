#include "push/PushCommand.h"

#include <QStringList>

PushCommand PushCommand::parse(const QString& message)
{
    PushCommand command;
    const QStringList fields = message.split(QStringLiteral("#$#"), Qt::KeepEmptyParts, Qt::CaseSensitive);
    command.word = fields.value(0);
    const bool known = command.word == QLatin1String("MOD") || command.word == QLatin1String("UPD") ||
                       command.word == QLatin1String("RPT") || command.word == QLatin1String("ACT") ||
                       command.word == QLatin1String("RESET");
    if (!known)
        return command;
    if (fields.size() < 2) {
        command.kind = TooShort;
        return command;
    }
    const QString& subject = fields.at(1);

    if (command.word == QLatin1String("MOD")) {
        if (subject == QLatin1String("AGENT_CONFIG_CHANGE"))
            command.kind = ConfigChange;
    } else if (command.word == QLatin1String("UPD")) {
        if (subject == QLatin1String("AGENT"))
            command.kind = Update;
    } else if (command.word == QLatin1String("RESET")) {
        if (subject == QLatin1String("TRACE_LOG"))
            command.kind = ResetTraceLog;
    } else {
        // Reports drop one leading "$" from the subject and the parameter;
        // actions pass their order on untouched. A parameter of "0" means none.
        const bool report = command.word == QLatin1String("RPT");
        QString task = subject;
        QString parameter = fields.size() > 2 ? fields.at(2) : QString();
        if (report && task.startsWith(QLatin1Char('$')))
            task.remove(0, 1);
        if (report && parameter.startsWith(QLatin1Char('$')))
            parameter.remove(0, 1);
        if (parameter == QLatin1String("0"))
            parameter.clear();
        command.kind = report ? Report : Action;
        command.task = task.toInt(nullptr, 10); // not a number: task 0
        command.parameter = parameter;
    }
    return command;
}
