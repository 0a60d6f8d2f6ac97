#pragma once

// Runs the built edr-agent binary under a temporary --prefix for end-to-end tests.

#include "core/HostPaths.h"
#include "support/TestSupport.h"

#include <QProcess>
#include <QProcessEnvironment>

namespace edrtest
{

class AgentProcess
{
public:
    AgentProcess();
    ~AgentProcess();

    QString prefix() const { return m_dir.path(); }
    QString dataDir() const { return prefix() + QStringLiteral("/var/lib/edr-agent"); }
    QString logPath() const { return dataDir() + QStringLiteral("/EDR_Track.log"); }

    void writeServerIni(int httpPort, int socketPort, int listenPort,
                        const QByteArray& extraServerKeys = QByteArray());
    void setEnv(const QString& name, const QString& value) { m_env.insert(name, value); }

    // Starts the daemon (no command) or a one-shot command such as {"report", "hardware"}.
    bool start(const QStringList& extraArgs = {}, const QStringList& wrapper = {});
    bool waitForExit(int timeoutMs)
    {
        return m_process.state() == QProcess::NotRunning || m_process.waitForFinished(timeoutMs);
    }
    int exitCode() const { return m_process.exitCode(); }
    qint64 processId() const { return m_process.processId(); }
    void signal(int sig);
    QByteArray standardOutput() { return m_process.readAllStandardOutput(); }
    QByteArray standardError() { return m_process.readAllStandardError(); }

    QByteArray log() const { return HostPaths::readFile(logPath()); }
    // Polls the trace log (the event loop of the test keeps running).
    bool waitForLog(const QByteArray& text, int timeoutMs, int occurrences = 1) const
    {
        return waitUntil([&] { return log().count(text) >= occurrences; }, timeoutMs);
    }

private:
    QTemporaryDir m_dir;
    QProcess m_process;
    QProcessEnvironment m_env;
};

} // namespace edrtest
