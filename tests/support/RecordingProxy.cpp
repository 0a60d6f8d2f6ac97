#include "support/RecordingProxy.h"

#include "support/TestSupport.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace edrtest
{

RecordingProxy::RecordingProxy(int targetPort) : m_target(targetPort)
{
    m_listenFd = LoopbackSocket::listenOn(&m_port);
    m_acceptor = std::thread([this] { acceptLoop(); });
}

RecordingProxy::~RecordingProxy()
{
    m_stop = true;
    m_acceptor.join();
    for (std::thread& t : m_relays)
        t.join();
    ::close(m_listenFd);
}

QByteArray RecordingProxy::recorded() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_recorded;
}

void RecordingProxy::acceptLoop()
{
    while (!m_stop) {
        const int client = LoopbackSocket::acceptOne(m_listenFd, 100);
        if (client >= 0)
            m_relays.emplace_back([this, client] { relay(client); });
    }
}

void RecordingProxy::relay(int client)
{
    const int server = LoopbackSocket::connectTo(m_target, 2000);
    char buf[16384];
    while (server >= 0 && !m_stop) {
        pollfd fds[2] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
        if (::poll(fds, 2, 100) <= 0)
            continue;
        bool open = true;
        for (int i = 0; i < 2 && open; ++i) {
            if (!fds[i].revents)
                continue;
            const ssize_t n = ::recv(fds[i].fd, buf, sizeof buf, 0);
            if (n <= 0) {
                open = false;
                break;
            }
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_recorded.append(buf, static_cast<int>(n));
            }
            open = ::send(fds[1 - i].fd, buf, static_cast<size_t>(n), MSG_NOSIGNAL) == n;
        }
        if (!open)
            break;
    }
    if (server >= 0)
        ::close(server);
    ::close(client);
}

} // namespace edrtest
