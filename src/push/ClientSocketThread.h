#pragma once

#include "push/ListenerAllowList.h"
#include "push/StoppableWait.h"

#include <QMutex>
#include <QString>
#include <QThread>

#include <atomic>

// The local listener: one message per client, answered "OK" a second later.
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
    void setAllowList(const ListenerAllowList& list);

    void requestStop() { m_wait.requestStop(); }

    bool runSocketListner();
    void connectToSocket(int fd);

signals:
    void messageRecieved(const QString& ip, const QString& message);

protected:
    void run() override;

private:
    void startSocket();
    int bindSocket();
    bool peerAllowed(const QString& peer);

    QString m_clientAddress;
    std::atomic<unsigned int> m_clientPort{0};
    std::atomic<int> m_protocol{UDP};
    QMutex m_allowMutex;
    ListenerAllowList m_allow;
    StoppableWait m_wait;
};
