#pragma once

#include <QString>

// One push-channel message, "#$#"-separated: command word, subject, parameter.
class PushCommand
{
public:
    enum Kind {
        Ignored,      // unknown word or subject: nothing to do, nothing logged
        TooShort,     // a known word without its subject
        ConfigChange, // MOD#$#AGENT_CONFIG_CHANGE
        Update,       // UPD#$#AGENT
        Report,       // RPT#$#<task>[#$#<parameter>]
        Action,       // ACT#$#<task>[#$#<order>]
        ResetTraceLog // RESET#$#TRACE_LOG
    };

    Kind kind = Ignored;
    QString word;
    int task = 0;
    QString parameter;

    static PushCommand parse(const QString& message);
};
