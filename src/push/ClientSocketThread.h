#pragma once

#include "core/UniqueFd.h"
#include "push/ListenerAllowList.h"
#include "push/StoppableWait.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QThread>

#include <atomic>

class ServerDetails;

// The local listener: one message per client, answered "OK" a second later.
// Only peers on the allow-list (loopback, the configured servers, or the
// ListenerAllow setting) may hand over commands, and of this machine's own
// users only root.
class ClientSocketThread : public QThread
{
    Q_OBJECT
public:
    enum PROTOCOL { UDP = 0, TCP = 1 };

    explicit ClientSocketThread(QObject* parent = nullptr);
    ~ClientSocketThread() override;

    unsigned int getClientPort() const { return m_clientPort; }
    void setClientPort(unsigned int port) { m_clientPort = port; }
    void setProtocol(PROTOCOL protocol) { m_protocol = protocol; }

    void requestStop() { m_wait.requestStop(); }
    // Called by the starter right before start(): a stop that follows the
    // start at once is then never lost.
    void clearStop() { m_wait.reset(); }

    bool runSocketListner();
    void connectToSocket(int fd);

signals:
    // The bytes as received: the audit records them exactly.
    void messageRecieved(const QString& ip, const QByteArray& message);

protected:
    void run() override;

private:
    void startSocket();
    UniqueFd bindSocket();
    bool peerAllowed(const QString& peer);
    // Why the peer at address (on the accepted connection fd, or -1 for a
    // datagram) is refused; empty when it is served.
    QString refusal(const QString& address, int fd);
    void refreshAllowList();
    QList<QHostAddress> resolve(const QString& name);

    QString m_clientAddress;
    std::atomic<unsigned int> m_clientPort{0};
    std::atomic<int> m_protocol{UDP};
    ServerDetails* m_serverDetails;
    // Owned by the thread's run: the list and the settings it was built from.
    ListenerAllowList m_allow;
    QStringList m_allowServers;
    QString m_allowSetting;
    bool m_allowBuilt = false;
    StoppableWait m_wait;
};
