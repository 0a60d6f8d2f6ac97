#include "support/AgentProcess.h"

#include <csignal>

namespace edrtest
{

AgentProcess::AgentProcess() : m_env(QProcessEnvironment::systemEnvironment())
{
    m_env.insert(QStringLiteral("EDR_AGENT_TIME_SCALE"), QStringLiteral("0.01"));
}

AgentProcess::~AgentProcess()
{
    m_process.kill();
    m_process.waitForFinished(5000);
}

void AgentProcess::writeServerIni(int httpPort, int socketPort, int listenPort,
                                  const QByteArray& extraServerKeys)
{
    writeTestFile(prefix() + QStringLiteral("/etc/edr-agent/serverip.ini"),
                  serverIni(httpPort, socketPort, listenPort, extraServerKeys));
}

bool AgentProcess::start(const QStringList& extraArgs, const QStringList& wrapper)
{
    const QStringList command =
        wrapper + QStringList{EDR_AGENT_BIN, "--prefix", prefix(), "--log-level", "trace"};
    m_process.setProcessEnvironment(m_env);
    m_process.start(command.first(), command.mid(1) + extraArgs);
    return m_process.waitForStarted(10000);
}

void AgentProcess::signal(int sig)
{
    if (m_process.processId() > 0)
        ::kill(static_cast<pid_t>(m_process.processId()), sig);
}

} // namespace edrtest
