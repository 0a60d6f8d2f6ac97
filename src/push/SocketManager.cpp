#include "push/SocketManager.h"

#include "push/OrderPolicy.h"
#include "push/PushCommand.h"

#include "core/CLogger.h"
#include "core/Common.h"
#include "core/UniqueFd.h"
#include "identity/AgentDetails.h"
#include "identity/ServerDetails.h"
#include "schedule/ScheduleManager.h"
#include "schedule/TasksManager.h"

#include <QFile>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

SocketManager* SocketManager::s_instance = nullptr;

namespace
{
constexpr qint64 kReconnectPauseMs = 10000;
} // namespace

SocketManager* SocketManager::getInstance()
{
    if (!s_instance)
        s_instance = new SocketManager();
    return s_instance;
}

void SocketManager::releaseInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

SocketManager::SocketManager()
    : m_agentDetails(AgentDetails::getInstance()), m_serverDetails(ServerDetails::getInstance()),
      m_tasksManager(TasksManager::getInstance()), m_scheduleManager(ScheduleManager::getInstance())
{
    connect(&m_clientThread, &ClientSocketThread::messageRecieved, this, &SocketManager::onMessageRecieved);
    connect(&m_serverThread, &ServerSocketThread::messageRecieved, this, &SocketManager::onMessageRecieved);
    connect(&m_serverThread, &ServerSocketThread::socketClosed, this,
            &SocketManager::onSocketServerThreadFinished);
    // The pause before a reconnect is a timer: the main thread never sleeps.
    m_reconnectTimer.setSingleShot(true);
    connect(&m_reconnectTimer, &QTimer::timeout, this, &SocketManager::connectToServer);
}

// Both threads are stopped and joined before they are destroyed.
SocketManager::~SocketManager()
{
    m_shuttingDown = true;
    m_reconnectTimer.stop();
    m_serverThread.requestStop();
    m_clientThread.requestStop();
    m_serverThread.wait();
    m_clientThread.wait();
}

void SocketManager::startSocketListner()
{
    m_clientThread.setProtocol(ClientSocketThread::TCP);
    m_clientThread.setClientPort(static_cast<unsigned int>(m_agentDetails->getAgentListenPort()));
    if (m_clientThread.isRunning())
        return;
    m_clientThread.clearStop();
    m_clientThread.start(QThread::InheritPriority);
}

void SocketManager::stopSocketListner()
{
    m_clientThread.exit(0);
}

void SocketManager::connectToSocketServer()
{
    EDR_LOG->Trace(Q_FUNC_INFO, "Connecting to Lan server...");
    m_reconnectTimer.stop();
    // A run still going on is ended cooperatively before the restart.
    if (m_serverThread.isRunning()) {
        m_serverThread.requestStop();
        m_serverThread.wait();
    }
    m_serverThread.setCorpKey(m_agentDetails->getCorpKey());
    m_serverThread.setServerIpAddress(m_serverDetails->getServerIP());
    m_serverThread.setServerSocketPort(m_serverDetails->getServerSocketPort());
    m_serverThread.clearStop();
    m_serverThread.start(QThread::InheritPriority);
}

void SocketManager::connectToServer()
{
    connectToSocketServer();
}

void SocketManager::disconnectFromSocketServer()
{
    EDR_LOG->Trace(Q_FUNC_INFO, "Disconnected from Lan server...");
    if (m_serverThread.isFinished())
        return;
    m_serverThread.requestStop();
    m_serverThread.wait(2000);
}

void SocketManager::disconnectFromServer()
{
    disconnectFromSocketServer();
}

void SocketManager::onSocketServerThreadFinished()
{
    if (m_shuttingDown)
        return;
    EDR_LOG->Trace(Q_FUNC_INFO, "Lan Server Socket Closed! Sleeping for 10 seconds.");
    m_reconnectTimer.start(Common::scaledMs(kReconnectPauseMs));
}

void SocketManager::onMessageRecieved(const QString& ip, const QByteArray& message)
{
    EDR_LOG->Trace(Q_FUNC_INFO, "Processing Message");
    processCommand(ip, message, sender() == &m_serverThread ? AuditLog::Push : AuditLog::Listener);
}

void SocketManager::processCommand(const QString& ip, const QByteArray& message, AuditLog::Channel channel)
{
    // The parser reads the text up to its first zero byte; the audit keeps every byte.
    const QString text =
        QString::fromUtf8(message.constData(),
                          static_cast<int>(qstrnlen(message.constData(), static_cast<uint>(message.size()))));
    const PushCommand command = PushCommand::parse(text);
    // The server's own keep-alives are no commands.
    if (channel == AuditLog::Push && text == QLatin1String("keep-alive"))
        return;
    AuditLog* audit = AuditLog::getInstance();
    const bool numbered = command.kind == PushCommand::Report || command.kind == PushCommand::Action;
    const std::optional<int> task = numbered ? std::optional<int>(command.task) : std::nullopt;
    // Refused before the number becomes a task of the dispatcher.
    if (numbered && (command.task < 0 || command.task >= TasksManager::kTaskCount)) {
        EDR_LOG->Error(Q_FUNC_INFO, EINVAL, "Refused %s command for unknown task %d",
                       qUtf8Printable(command.word), command.task);
        audit->record(channel, ip, message, task, AuditLog::Malformed);
        return;
    }
    if (command.kind == PushCommand::Ignored || command.kind == PushCommand::TooShort) {
        audit->record(channel, ip, message, task, AuditLog::Malformed);
        carryOut(command, true);
        return;
    }
    const QString key = OrderPolicy::keyFor(command);
    if (!key.isEmpty() && !OrderPolicy().allows(key)) {
        EDR_LOG->Error(Q_FUNC_INFO, EACCES, "Order '%s' refused: policy %s does not allow it",
                       qUtf8Printable(text), qUtf8Printable(key));
        OrderReport report;
        carryOut(command, false);
        audit->record(channel, ip, message, task, AuditLog::Denied, report.delivered);
        return;
    }
    const AuditLog::Entry entry = audit->begin(channel, ip, message, task);
    if (!entry.written && !OrderPolicy().allows(QStringLiteral("AuditFailure"))) {
        EDR_LOG->Error(Q_FUNC_INFO, entry.error,
                       "Order '%s' not carried out: its audit record cannot be written and policy "
                       "AuditFailure does not allow it",
                       qUtf8Printable(text));
        carryOut(command, false);
        return;
    }
    OrderReport report;
    const bool carriedOut = carryOut(command, true);
    AuditLog::Outcome outcome = carriedOut ? AuditLog::Done : AuditLog::Failed;
    if (command.kind == PushCommand::Action || (command.kind == PushCommand::Report && !key.isEmpty())) {
        // An order is done when it did what it was asked, whatever became of its result.
        outcome = report.succeeded.value_or(false) ? AuditLog::Done : AuditLog::Failed;
    } else if (command.kind == PushCommand::Report) {
        // A report is done once the server has it.
        outcome = carriedOut && report.delivered.value_or(false) ? AuditLog::Done : AuditLog::Failed;
    }
    audit->finish(entry, outcome, report.delivered);
}

// True when the command was carried out; a refused order only reports its failure.
bool SocketManager::carryOut(const PushCommand& command, bool permitted)
{
    const auto task = static_cast<TasksManager::TASK_NAMES>(command.task);
    switch (command.kind) {
    case PushCommand::Ignored:
        return false;
    case PushCommand::TooShort:
        EDR_LOG->Error(Q_FUNC_INFO, EINVAL, "Ignored %s command without a subject",
                       qUtf8Printable(command.word));
        return false;
    case PushCommand::ConfigChange:
        if (!permitted)
            return false;
        if (m_scheduleManager && m_scheduleManager->getLatestSceduleFromServer()) {
            EDR_LOG->Trace(Q_FUNC_INFO, "Successfully Downloaded Updated Agent Config!");
            return true;
        }
        EDR_LOG->Trace(Q_FUNC_INFO, "Failed to Download Agent Config!");
        return false;
    case PushCommand::Update:
        if (!permitted)
            return false;
        if (m_scheduleManager && m_scheduleManager->getLatestAgentFromServer()) {
            EDR_LOG->Trace(Q_FUNC_INFO, "Successfully Started Agent Updater!");
            return true;
        }
        EDR_LOG->Trace(Q_FUNC_INFO, "Failed to Start Agent Updater!");
        return false;
    case PushCommand::Report:
        return m_tasksManager &&
               m_tasksManager->carryOutReport(task, command.parameter, permitted).value_or(false);
    case PushCommand::Action:
        return m_tasksManager &&
               m_tasksManager->carryOutAction(task, command.parameter, permitted).value_or(false);
    case PushCommand::ResetTraceLog:
        if (!permitted)
            return false;
        if (QFile::remove(Common::getEdrDirPath() + QStringLiteral("/EDR_Track.log"))) {
            EDR_LOG->Trace(Q_FUNC_INFO, "Successfully Deleted Trace Log!");
            return true;
        }
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Failed to Delete Trace Log!");
        return false;
    }
    return false;
}

bool SocketManager::sendMessageTo(const QString& ip, const QString& message, quint64 port, bool datagram)
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    if (ip.isEmpty()) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Ip Address Not Found!");
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return false;
    }
    const QByteArray address = ip.toUtf8();
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(static_cast<uint16_t>(port & 0xffff));
    target.sin_addr.s_addr = inet_addr(address.constData());

    // The text and its terminator must fit the 4096-byte buffer.
    char buffer[4096] = {};
    const QByteArray text = message.toUtf8();
    std::memcpy(buffer, text.constData(),
                static_cast<size_t>(qMin(text.size(), static_cast<int>(sizeof buffer) - 1)));
    const size_t length = std::strlen(buffer);

    const UniqueFd owned(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int fd = owned.get();
    if (!owned) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Failed to get socket connection!");
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return false;
    }
    timeval timeout{10, 0}; // bounds the connect and the send
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    EDR_LOG->Debug(Q_FUNC_INFO, "Connecting to IP: %s", address.constData());
    ssize_t sent;
    if (datagram) {
        sent =
            ::sendto(fd, buffer, length, MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&target), sizeof target);
    } else {
        if (::connect(fd, reinterpret_cast<sockaddr*>(&target), sizeof target) != 0) {
            EDR_LOG->Error(Q_FUNC_INFO, errno, "IP Server is unreachable! IP: %s", address.constData());
            EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
            return false;
        }
        sent = ::send(fd, buffer, length, MSG_NOSIGNAL);
    }
    const bool result = sent > 0;
    if (result)
        EDR_LOG->Info(Q_FUNC_INFO, "Message send to %s:%d successfully", address.constData(),
                      static_cast<int>(port));
    EDR_LOG->Trace(Q_FUNC_INFO, "IP Socket Closed. %s", address.constData());
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
    return result;
}
