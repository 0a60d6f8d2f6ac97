#pragma once

#include "core/HostPaths.h"
#include "core/ToolRunner.h"

#include <QString>
#include <QStringList>

// Starts the updater script so that it survives what it does to the agent.
// Under systemd a child stays in the agent's control group even when detached,
// and "systemctl restart edr-agent" from the script would kill the script too;
// there it runs as a transient unit of its own. Elsewhere it is started
// detached.
class UpdaterLauncher
{
public:
    enum class Outcome { TransientUnit, Detached, Failed };

    UpdaterLauncher();
    UpdaterLauncher(const HostPaths& host, const ToolRunner& runner);

    Outcome start(const QString& script) const;

    // systemd-run's arguments for running `shell script` as the unit `unit`.
    static QStringList transientUnitArguments(const QString& unit, const QString& shell,
                                              const QString& script);

private:
    bool systemdIsRunning() const;

    HostPaths m_host;
    ToolRunner m_runner;
};
