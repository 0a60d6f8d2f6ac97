#pragma once

#include "core/EdrAgentConfig.h"
#include "push/StoppableWait.h"
#include "push/TlsChannel.h"

#include <QByteArray>
#include <QString>
#include <QThread>

#include <atomic>
#include <memory>

class AgentDetails;
class ServerDetails;

// One run = one connection attempt to the server's socket service and, when it
// succeeds, the whole life of that connection. Every run ends with socketClosed.
class ServerSocketThread : public QThread
{
    Q_OBJECT
public:
    explicit ServerSocketThread(QObject* parent = nullptr);
    ~ServerSocketThread() override;

    QString corpKey() const { return m_corpKey; }
    void setCorpKey(const QString& key) { m_corpKey = key; }
    QString serverIpAddress() const { return m_serverIp; }
    void setServerIpAddress(const QString& ip) { m_serverIp = ip; }
    int serverSocketPort() const { return m_serverPort; }
    void setServerSocketPort(int port) { m_serverPort = port; }
    bool getLastConnectionStatus() const { return m_lastConnectionStatus.load(); }

    // Cooperative stop: wakes any blocking wait; the run then ends by itself.
    void requestStop() { m_wait.requestStop(); }
    // Called by the starter right before start(): a stop that follows the
    // start at once is then never lost.
    void clearStop() { m_wait.reset(); }

    void startSocket();
    bool connectToServerSocket();
    void connectToSocket(int fd);

signals:
    // The bytes as received: the audit records them exactly.
    void messageRecieved(const QString& ip, const QByteArray& message);
    void socketClosed();

protected:
    void run() override;

private:
    bool sendKeepAlive(int fd);
    // Over TLS when the connection has it, else in clear.
    ssize_t sendText(int fd, const char* data, size_t size);
    ssize_t receiveText(int fd, char* buffer, size_t size);
    bool startTls(int fd);

    QString m_corpKey;
    QString m_serverIp;
    int m_serverPort = 0;
    std::atomic<bool> m_lastConnectionStatus{false};
    AgentDetails* m_agentDetails;
    ServerDetails* m_serverDetails;
    EdrAgentConfig m_config;
    StoppableWait m_wait;
    std::unique_ptr<TlsChannel> m_tls; // this run's TLS stream, null in clear
    bool m_usedTls = false;            // OpenSSL holds state for this thread
};
