#include "SocketService.h"

#include <QDateTime>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
const std::string kHandshake = "Connect#$#$";
const std::string kFieldSeparator = "#$#$";
const int kKeptMessages = 2000;
} // namespace

SocketService::SocketService(MessageHandler onMessage) : m_onMessage(std::move(onMessage)) {}

SocketService::~SocketService()
{
    stop();
    if (m_tls)
        SSL_CTX_free(m_tls);
}

bool SocketService::useTls(const std::string& certFile, const std::string& keyFile, std::string* error)
{
    m_tls = SSL_CTX_new(TLS_server_method());
    if (m_tls && SSL_CTX_use_certificate_chain_file(m_tls, certFile.c_str()) == 1 &&
        SSL_CTX_use_PrivateKey_file(m_tls, keyFile.c_str(), SSL_FILETYPE_PEM) == 1 &&
        SSL_CTX_check_private_key(m_tls) == 1)
        return true;
    char text[256] = "cannot create a TLS context";
    if (const unsigned long code = ERR_get_error())
        ERR_error_string_n(code, text, sizeof text);
    *error = text;
    return false;
}

// The handshake, on the connection's own thread: a client that does not
// complete it within 10 s (or gives up) is dropped without a record.
SSL* SocketService::acceptTls(Connection* c)
{
    SSL* ssl = SSL_new(m_tls);
    if (!ssl)
        return nullptr;
    SSL_set_fd(ssl, c->fd);
    ::fcntl(c->fd, F_SETFL, ::fcntl(c->fd, F_GETFL, 0) | O_NONBLOCK);
    for (int waited = 0; waited < 10000 && c->open && !m_stop; waited += 200) {
        const int rc = SSL_accept(ssl);
        if (rc == 1)
            return ssl;
        const int err = SSL_get_error(ssl, rc);
        if (err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE)
            break;
        pollfd p{c->fd, static_cast<short>(err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT), 0};
        ::poll(&p, 1, 200);
    }
    ERR_clear_error();
    SSL_free(ssl);
    return nullptr;
}

bool SocketService::sendTo(Connection& c, const std::string& text)
{
    if (!c.ssl)
        return ::send(c.fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    std::lock_guard<std::mutex> io(c.io);
    size_t done = 0;
    for (int tries = 0; done < text.size() && tries < 50; ++tries) {
        size_t n = 0;
        if (SSL_write_ex(c.ssl, text.data() + done, text.size() - done, &n) == 1) {
            done += n;
            continue;
        }
        if (SSL_get_error(c.ssl, 0) != SSL_ERROR_WANT_WRITE)
            break;
        pollfd p{c.fd, POLLOUT, 0};
        ::poll(&p, 1, 100);
    }
    ERR_clear_error();
    return done == text.size();
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
    if (::bind(m_listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(m_listenFd, 16) != 0)
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
    bool tlsReady = !m_tls;
    if (m_tls) {
        SSL* ssl = acceptTls(c);
        std::lock_guard<std::mutex> lock(m_mutex);
        c->ssl = ssl;
        tlsReady = ssl != nullptr;
    }
    while (tlsReady && c->open && !m_stop) {
        ssize_t n;
        if (c->ssl) {
            std::unique_lock<std::mutex> io(c->io);
            if (SSL_pending(c->ssl) == 0) {
                io.unlock();
                pollfd p{c->fd, POLLIN, 0};
                if (::poll(&p, 1, 200) == 0)
                    continue;
                io.lock();
            }
            size_t got = 0;
            const int rc = SSL_read_ex(c->ssl, buf, 4096, &got);
            const int err = rc == 1 ? SSL_ERROR_NONE : SSL_get_error(c->ssl, rc);
            ERR_clear_error();
            if (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE)
                continue;
            n = err == SSL_ERROR_NONE ? static_cast<ssize_t>(got) : -1;
        } else {
            pollfd p{c->fd, POLLIN, 0};
            const int ready = ::poll(&p, 1, 200);
            if (ready == 0)
                continue;
            n = ready > 0 ? ::recv(c->fd, buf, 4096, 0) : -1;
        }
        if (n <= 0)
            break;
        const std::string text(buf, static_cast<size_t>(n));
        record(*c, text);
        if (m_onMessage) {
            std::string token;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                token = c->token;
            }
            m_onMessage(token);
        }
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    if (c->ssl) {
        std::lock_guard<std::mutex> io(c->io);
        SSL_free(c->ssl);
        c->ssl = nullptr;
    }
    c->open = false;
    ::close(c->fd);
    c->fd = -1;
}

void SocketService::record(Connection& c, const std::string& text)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const bool first = c.received++ == 0;
    if (first) {
        c.handshake = text;
        const size_t last = text.rfind(kFieldSeparator);
        if (text.compare(0, kHandshake.size(), kHandshake) == 0 && last >= kHandshake.size())
            c.token = text.substr(last + kFieldSeparator.size());
    }
    if (text == "keep-alive")
        ++c.keepAlives;
    QJsonObject m{{QStringLiteral("connection"), c.id},
                  {QStringLiteral("peer"), QString::fromStdString(c.peer)},
                  {QStringLiteral("time"), QDateTime::currentDateTime().toString(Qt::ISODateWithMs)},
                  {QStringLiteral("text"), QString::fromStdString(text)}};
    m_messages.append(m);
    if (m_messages.size() > kKeptMessages)
        m_messages.removeFirst();
}

int SocketService::push(const std::string& text, const std::string& peer)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    int sent = 0;
    for (auto& c : m_connections) {
        if (!c->open || (!peer.empty() && c->peer != peer))
            continue;
        if ((!m_tls || c->ssl) && sendTo(*c, text)) {
            c->lastSent = std::chrono::steady_clock::now();
            ++sent;
        }
    }
    return sent;
}

bool SocketService::sendPaced(const std::string& token, const std::string& text,
                              std::chrono::milliseconds gap)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto now = std::chrono::steady_clock::now();
    for (auto& c : m_connections) {
        if (!c->open || token.empty() || c->token != token || (m_tls && !c->ssl))
            continue;
        if (now - c->lastSent < gap)
            return false;
        if (!sendTo(*c, text))
            return false;
        c->lastSent = now;
        return true;
    }
    return false;
}

std::set<std::string> SocketService::openTokens() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::set<std::string> out;
    for (const auto& c : m_connections)
        if (c->open && !c->token.empty())
            out.insert(c->token);
    return out;
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
