#include "SocketService.h"

#include <QDateTime>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

SocketService::SocketService(const QString& logPath) : m_logPath(logPath) {}

SocketService::~SocketService()
{
    stop();
}

int SocketService::listen(const std::string& host, int port)
{
    m_listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listenFd < 0)
        return -1;
    int one = 1;
    ::setsockopt(m_listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = inet_addr(host.c_str());
    if (::bind(m_listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(m_listenFd, 16) != 0)
        return -1;
    socklen_t len = sizeof addr;
    ::getsockname(m_listenFd, reinterpret_cast<sockaddr*>(&addr), &len);
    m_acceptor = std::thread([this] { acceptLoop(); });
    return ntohs(addr.sin_port);
}

void SocketService::stop()
{
    if (m_stop.exchange(true))
        return;
    if (m_listenFd >= 0)
        ::shutdown(m_listenFd, SHUT_RDWR);
    if (m_acceptor.joinable())
        m_acceptor.join();
    closeAll();
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& c : m_connections)
        if (c->reader.joinable())
            c->reader.join();
    if (m_listenFd >= 0)
        ::close(m_listenFd);
}

void SocketService::acceptLoop()
{
    while (!m_stop) {
        pollfd p{m_listenFd, POLLIN, 0};
        if (::poll(&p, 1, 200) <= 0)
            continue;
        sockaddr_in peer{};
        socklen_t len = sizeof peer;
        const int fd = ::accept4(m_listenFd, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        auto c = std::make_unique<Connection>();
        c->fd = fd;
        c->peer = inet_ntoa(peer.sin_addr);
        Connection* raw = c.get();
        std::lock_guard<std::mutex> lock(m_mutex);
        c->id = ++m_nextId;
        m_connections.push_back(std::move(c));
        raw->reader = std::thread([this, raw] { readLoop(raw); });
    }
}

void SocketService::readLoop(Connection* c)
{
    char buf[4097];
    while (c->open && !m_stop) {
        pollfd p{c->fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, 200);
        if (ready == 0)
            continue;
        const ssize_t n = ready > 0 ? ::recv(c->fd, buf, 4096, 0) : -1;
        if (n <= 0)
            break;
        record(*c, std::string(buf, static_cast<size_t>(n)));
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    c->open = false;
    ::close(c->fd);
    c->fd = -1;
}

void SocketService::record(const Connection& c, const std::string& text)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto* conn = const_cast<Connection*>(&c);
    const bool first = conn->received++ == 0;
    if (first)
        conn->handshake = text;
    if (text == "keep-alive")
        ++conn->keepAlives;
    QJsonObject m{{QStringLiteral("connection"), c.id},
                  {QStringLiteral("peer"), QString::fromStdString(c.peer)},
                  {QStringLiteral("time"), QDateTime::currentDateTime().toString(Qt::ISODateWithMs)},
                  {QStringLiteral("text"), QString::fromStdString(text)}};
    m_messages.append(m);
    QFile f(m_logPath);
    if (f.open(QIODevice::Append))
        f.write(QJsonDocument(m).toJson(QJsonDocument::Compact) + '\n');
}

int SocketService::push(const std::string& text, const std::string& peer)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    int sent = 0;
    for (auto& c : m_connections) {
        if (!c->open || (!peer.empty() && c->peer != peer))
            continue;
        if (::send(c->fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size()))
            ++sent;
    }
    return sent;
}

int SocketService::closeAll()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    int closed = 0;
    for (auto& c : m_connections) {
        if (c->fd >= 0 && c->open) {
            ::shutdown(c->fd, SHUT_RDWR);
            ++closed;
        }
        c->open = false;
    }
    return closed;
}

QJsonArray SocketService::connections() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    QJsonArray out;
    for (const auto& c : m_connections)
        out.append(QJsonObject{{QStringLiteral("id"), c->id},
                               {QStringLiteral("peer"), QString::fromStdString(c->peer)},
                               {QStringLiteral("open"), c->open.load()},
                               {QStringLiteral("handshake"), QString::fromStdString(c->handshake)},
                               {QStringLiteral("messages"), c->received},
                               {QStringLiteral("keep_alives"), c->keepAlives}});
    return out;
}

QJsonArray SocketService::messages() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages;
}
