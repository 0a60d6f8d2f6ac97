#pragma once

#include <QString>

// Where the agent keeps its files. Every directory hangs below an optional
// prefix (--prefix) so tests and demos run in a scratch tree.
class Common
{
public:
    static void setPrefix(const QString& prefix);
    static QString prefix();

    static QString getRootPath();     // PREFIX/opt/edr-agent
    static QString getEdrDirPath();   // PREFIX/var/lib/edr-agent
    static QString getReportsPath();  // PREFIX/var/lib/edr-agent/reports
    static QString getSettingsPath(); // PREFIX/etc/edr-agent
    static QString getBuildVersion();

    // EDR_AGENT_TIME_SCALE multiplies every protocol pause and period; tests
    // and demos set it small. Read once.
    static double timeScale();
    static int scaledMs(qint64 ms);
    static void setTimeScaleForTesting(double scale);
};
