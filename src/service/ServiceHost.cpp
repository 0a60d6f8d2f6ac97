#include "service/ServiceHost.h"

#include "comm/AgentManager.h"
#include "comm/Outbox.h"
#include "core/AuditLog.h"
#include "core/CLogger.h"
#include "core/Common.h"
#include "core/StopRequest.h"
#include "identity/AgentDetails.h"
#include "identity/ServerDetails.h"
#include "push/SocketManager.h"
#include "schedule/ScheduleManager.h"
#include "schedule/TasksManager.h"

#include <QCoreApplication>
#include <QRandomGenerator>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
int g_signalPipe[2] = {-1, -1};

bool ensureSignalPipe()
{
    if (g_signalPipe[0] >= 0)
        return true;
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, g_signalPipe) != 0) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Cannot create the signal pipe; stopping");
        return false;
    }
    StopRequest::setSignalFd(g_signalPipe[0]);
    return true;
}
} // namespace

bool catchUnixSignals(std::initializer_list<int> signalList)
{
    if (signalList.size() == 0)
        return true;
    if (!ensureSignalPipe())
        return false;
    sigset_t blocking;
    sigemptyset(&blocking);
    for (int sig : signalList)
        sigaddset(&blocking, sig);
    for (int sig : signalList) {
        struct sigaction sa {
        };
        sa.sa_handler = signal_handler;
        sa.sa_mask = blocking;
        sa.sa_flags = 0;
        if (::sigaction(sig, &sa, nullptr) != 0) {
            EDR_LOG->Error(Q_FUNC_INFO, errno, "Cannot catch signal %d; stopping", sig);
            return false;
        }
    }
    return true;
}

void ignoreUnixSignals(std::initializer_list<int> signalList)
{
    for (int sig : signalList)
        ::signal(sig, SIG_IGN);
}

// Async-signal context: nothing but a write to the self-pipe.
void signal_handler(int sig)
{
    const int saved = errno;
    const unsigned char byte = static_cast<unsigned char>(sig);
    if (g_signalPipe[1] >= 0) {
        ssize_t rc = ::write(g_signalPipe[1], &byte, 1);
        (void)rc;
    }
    errno = saved;
}

void stopService()
{
    QCoreApplication::quit();
}

void releaseInstances()
{
    Outbox::releaseInstance();
    ScheduleManager::releaseInstance();
    ServerDetails::releaseInstance();
    AgentDetails::releaseInstance();
    AgentManager::releaseInstance();
    AuditLog::releaseInstance(); // writes the refusals still only counted
    LOGGER::CLogger::releaseInstance();
}

ServiceHost::ServiceHost(QObject* parent) : QObject(parent)
{
    m_retryTimer.setSingleShot(true);
    connect(&m_retryTimer, &QTimer::timeout, this, &ServiceHost::attemptRegistration);
}

ServiceHost::~ServiceHost() = default;

void ServiceHost::handleSignal(int sig)
{
    // The origin names the handler: the line reports what it caught.
    static const char* const origin = "void signal_handler(int)";
    const char* text = nullptr;
    switch (sig) {
    case SIGHUP:
        text = "Agent Service : hangup signal catched";
        break;
    case SIGKILL:
        text = "Agent Service : kill signal catched";
        break;
    case SIGTERM:
        text = "Agent Service : terminate signal catched";
        break;
    case SIGSTOP:
        text = "Agent Service : stop signal catched";
        break;
    case SIGUSR1:
        // `edr-agent outbox --flush` asks the running agent to deliver now.
        EDR_LOG->Info(origin, "Delivery of pending reports requested");
        if (Outbox* outbox = Outbox::active())
            outbox->scheduleReplay();
        return;
    default:
        return;
    }
    EDR_LOG->Trace(origin, "%s", text);
    stopService();
}

void ServiceHost::onSignalPipe()
{
    unsigned char buf[64];
    ssize_t n;
    while ((n = ::read(g_signalPipe[0], buf, sizeof buf)) > 0) {
        for (ssize_t i = 0; i < n; ++i)
            handleSignal(buf[i]);
    }
}

void ServiceHost::start()
{
    if (ensureSignalPipe() && !m_notifier) {
        m_notifier = new QSocketNotifier(g_signalPipe[0], QSocketNotifier::Read, this);
        connect(m_notifier, &QSocketNotifier::activated, this, &ServiceHost::onSignalPipe);
    }
    // Taken before anything is posted, and held for the process's life.
    Outbox* outbox = Outbox::getInstance();
    outbox->setLimits(Outbox::configuredLimits());
    outbox->lockAndScan();
    // The start sequence runs inside the event loop so a termination signal
    // is honoured at any moment of it, registration retries included.
    QTimer::singleShot(0, this, &ServiceHost::attemptRegistration);
}

qint64 ServiceHost::registrationDelayMs(int attempt, double jitter01)
{
    const qint64 base = 30000;
    const qint64 cap = 15 * 60 * 1000;
    qint64 delay = base;
    for (int i = 1; i < attempt && delay < cap; ++i)
        delay *= 2;
    delay = qMin(delay, cap);
    const double factor = 0.8 + 0.4 * qBound(0.0, jitter01, 1.0);
    return static_cast<qint64>(static_cast<double>(delay) * factor);
}

void ServiceHost::attemptRegistration()
{
    AgentManager* agent = AgentManager::getInstance();
    if (agent && !agent->isAgentRegistered() && !registerWithServer(*agent)) {
        ++m_attempts;
        const qint64 delay = registrationDelayMs(m_attempts, QRandomGenerator::global()->generateDouble());
        const int scaled = Common::scaledMs(delay);
        EDR_LOG->Info(Q_FUNC_INFO, "Registration failed; next attempt in %d ms", scaled);
        m_retryTimer.start(scaled);
        return;
    }
    continueStartup();
}

// A fresh install has no server address yet: that is said once, in the trace
// log and on stderr (the journal), and no request goes to a host named "NA".
bool ServiceHost::registerWithServer(AgentManager& agent)
{
    const ServerDetails* server = ServerDetails::getInstance();
    if (server && server->getServerIP() == QLatin1String("NA")) {
        if (!m_reportedNoServer) {
            m_reportedNoServer = true;
            const QByteArray text = "No server address: EDRIP and ACIP are NA in " +
                                    (Common::getSettingsPath() + QStringLiteral("/serverip.ini")).toUtf8();
            EDR_LOG->Error(Q_FUNC_INFO, EDESTADDRREQ, "%s", text.constData());
            const QByteArray line = "edr-agent: " + text + '\n';
            if (::write(STDERR_FILENO, line.constData(), static_cast<size_t>(line.size())) < 0) {
                // Nothing more to do when stderr is gone; the trace log has it.
            }
        }
        return false;
    }
    return agent.registerAgent();
}

void ServiceHost::continueStartup()
{
    // Registered: what waits from earlier runs may go out now.
    if (Outbox* outbox = Outbox::active())
        outbox->enableReplay();
    if (TasksManager* tasks = TasksManager::getInstance())
        tasks->sendReportToServer(TasksManager::AgentInfo, QString());
    if (SocketManager* sockets = SocketManager::getInstance()) {
        sockets->startSocketListner();
        sockets->connectToServer();
    }
    if (ScheduleManager* schedule = ScheduleManager::getInstance())
        schedule->startScheduler();
}

void ServiceHost::shutdown()
{
    m_retryTimer.stop();
    // Socket threads are stopped and joined before anything they use goes away.
    SocketManager::releaseInstance();
}
