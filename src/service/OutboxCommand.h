#pragma once

#include "comm/Outbox.h"

#include <QList>
#include <QString>
#include <QStringList>

// `edr-agent outbox [--flush]`: lists the pending reports (task, kind, age,
// size) or has them delivered now, by this process when no agent runs on the
// prefix, else by asking the running agent (SIGUSR1).
class OutboxCommand
{
public:
    static int run(bool flush);

    // The listing as printed; nowMs is the current time in epoch ms.
    static QString listing(const QList<Outbox::Entry>& entries, const QStringList& problems, qint64 nowMs);
    static QString formatAge(qint64 seconds);
};
