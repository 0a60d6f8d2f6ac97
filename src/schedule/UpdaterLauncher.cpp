#include "schedule/UpdaterLauncher.h"

#include "core/CLogger.h"
#include "core/Common.h"

#include <QDateTime>
#include <QFileInfo>
#include <QProcess>

#include <cerrno>

namespace
{
constexpr int kSystemdRunTimeoutMs = 30000;
const QString kSystemdRun = QStringLiteral("systemd-run");
} // namespace

// The run directory follows --prefix so a relocated agent (tests, demos) never
// starts units on the machine it runs on.
UpdaterLauncher::UpdaterLauncher()
    : m_host(QStringLiteral("/proc"), QStringLiteral("/sys"),
             Common::prefix().isEmpty() ? QStringLiteral("/") : Common::prefix())
{
}

UpdaterLauncher::UpdaterLauncher(const HostPaths& host, const ToolRunner& runner)
    : m_host(host), m_runner(runner)
{
}

QStringList UpdaterLauncher::transientUnitArguments(const QString& unit, const QString& shell,
                                                    const QString& script)
{
    return {QStringLiteral("--unit=") + unit,
            QStringLiteral("--collect"),
            QStringLiteral("--quiet"),
            QStringLiteral("--description=edr-agent updater"),
            QStringLiteral("--"),
            shell,
            script};
}

// The test systemd itself uses (sd_booted): its runtime unit directory exists.
bool UpdaterLauncher::systemdIsRunning() const
{
    return QFileInfo(m_host.root(QStringLiteral("/run/systemd/system"))).isDir();
}

UpdaterLauncher::Outcome UpdaterLauncher::start(const QString& script) const
{
    if (systemdIsRunning() && !m_runner.findProgram(kSystemdRun).isEmpty()) {
        QString shell = m_runner.findProgram(QStringLiteral("sh"));
        if (shell.isEmpty())
            shell = QStringLiteral("/bin/sh");
        const QString unit = QStringLiteral("edr-agent-update-%1").arg(QDateTime::currentMSecsSinceEpoch());
        const ToolResult r =
            m_runner.run(kSystemdRun, transientUnitArguments(unit, shell, script), kSystemdRunTimeoutMs);
        if (r.ok())
            return Outcome::TransientUnit;
        // Detached, the updater still runs; only a restart of the agent's unit
        // would cut it short.
        EDR_LOG->Error(Q_FUNC_INFO, errno, "systemd-run could not start %s (exit %d%s); starting it detached",
                       qUtf8Printable(unit), r.exitCode, r.timedOut ? ", timed out" : "");
    }
    return QProcess::startDetached(QStringLiteral("sh"), QStringList{script}) ? Outcome::Detached
                                                                              : Outcome::Failed;
}
