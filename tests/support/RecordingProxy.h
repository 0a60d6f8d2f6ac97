#pragma once

// A TCP relay on 127.0.0.1 that forwards to another loopback port and keeps
// every byte that crosses it, both ways: what a packet capture would show.

#include <QByteArray>

#include <atomic>
#include <list>
#include <mutex>
#include <thread>

namespace edrtest
{

class RecordingProxy
{
public:
    explicit RecordingProxy(int targetPort);
    ~RecordingProxy();
    int port() const { return m_port; }
    QByteArray recorded() const;

private:
    void acceptLoop();
    void relay(int client);

    int m_target;
    int m_listenFd = -1;
    int m_port = 0;
    std::atomic<bool> m_stop{false};
    std::thread m_acceptor;
    std::list<std::thread> m_relays;
    mutable std::mutex m_mutex;
    QByteArray m_recorded;
};

} // namespace edrtest
