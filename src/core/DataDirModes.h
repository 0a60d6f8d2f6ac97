#pragma once

#include <QString>

// The data directory holds the token and every report (agent.conf, request
// copies, pending reports, logs, the audit log): root's alone. tighten() makes
// the directory and every directory below it 0700 and every file 0600,
// repairing a tree left with wider modes, and returns how many it changed.
// Symbolic links are neither followed nor changed.
class DataDirModes
{
public:
    static int tighten(const QString& dir);
};
