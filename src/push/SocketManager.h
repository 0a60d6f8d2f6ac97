#pragma once

#include "core/AuditLog.h"
#include "core/EdrAgentConfig.h"
#include "push/ClientSocketThread.h"
#include "push/ServerSocketThread.h"

#include <QObject>
#include <QString>
#include <QTimer>

class AgentDetails;
class ServerDetails;
class TasksManager;
class ScheduleManager;
class PushCommand;

// Owns the two socket threads and carries out the commands they receive, on
// the main thread, in arrival order.
class SocketManager : public QObject
{
    Q_OBJECT
public:
    static SocketManager* getInstance();
    static void releaseInstance();
    ~SocketManager() override;

    void startSocketListner();
    void stopSocketListner();
    void connectToSocketServer();
    void connectToServer();
    void disconnectFromSocketServer();
    void disconnectFromServer();

    // Every command is audited, and carried out when the order policy allows it.
    void processCommand(const QString& ip, const QByteArray& message,
                        AuditLog::Channel channel = AuditLog::Listener);
    bool sendMessageTo(const QString& ip, const QString& message, quint64 port, bool datagram);

    // For tests: the threads' current state.
    ServerSocketThread& serverThread() { return m_serverThread; }
    ClientSocketThread& listenerThread() { return m_clientThread; }

public slots:
    void onSocketServerThreadFinished();
    void onMessageRecieved(const QString& ip, const QByteArray& message);

private:
    SocketManager();
    bool carryOut(const PushCommand& command, bool permitted);
    static SocketManager* s_instance;

    EdrAgentConfig m_config;
    ServerSocketThread m_serverThread;
    ClientSocketThread m_clientThread;
    AgentDetails* m_agentDetails;
    ServerDetails* m_serverDetails;
    TasksManager* m_tasksManager;
    ScheduleManager* m_scheduleManager;
    QTimer m_reconnectTimer;
    bool m_shuttingDown = false;
};
