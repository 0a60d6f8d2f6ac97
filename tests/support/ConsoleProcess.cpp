#include "support/ConsoleProcess.h"

#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>

#include <openssl/ssl.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace edrtest {

ConsoleProcess::ConsoleProcess(const QStringList& extraArgs)
{
    m_tls = extraArgs.contains(QStringLiteral("--tls-cert"));
    const QString portFile = m_dir.path() + QStringLiteral("/ports.json");
    QStringList args{QStringLiteral("--http-port"), QStringLiteral("0"), QStringLiteral("--socket-port"),
                     QStringLiteral("0"),           QStringLiteral("--data"), dataDir(),
                     QStringLiteral("--schedule"),  schedulePath(),       QStringLiteral("--port-file"),
                     portFile};
    m_process.start(QStringLiteral(EDR_CONSOLE_BIN), args + extraArgs);
    if (!m_process.waitForStarted(10000))
        return;
    waitUntil([&] { return QFile::exists(portFile); }, 10000);
    QFile f(portFile);
    if (!f.open(QIODevice::ReadOnly))
        return;
    const QJsonObject ports = QJsonDocument::fromJson(f.readAll()).object();
    m_httpPort = ports.value(QStringLiteral("http")).toInt();
    m_socketPort = ports.value(QStringLiteral("socket")).toInt();
}

ConsoleProcess::~ConsoleProcess()
{
    if (m_process.state() != QProcess::NotRunning) {
        m_process.terminate();
        if (!m_process.waitForFinished(5000)) {
            m_process.kill();
            m_process.waitForFinished(5000);
        }
    }
}

QList<QJsonObject> ConsoleProcess::requests(const QString& route) const
{
    QList<QJsonObject> out;
    const QDir dir(dataDir() + QStringLiteral("/reports"));
    const QStringList files = dir.entryList({QStringLiteral("*.json")}, QDir::Files, QDir::Name);
    for (const QString& name : files) {
        QFile f(dir.filePath(name));
        if (!f.open(QIODevice::ReadOnly))
            continue;
        const QJsonObject doc = QJsonDocument::fromJson(f.readAll()).object();
        if (doc.isEmpty())
            continue; // still being written
        if (route.isEmpty() || doc.value(QStringLiteral("route")).toString() == route)
            out << doc;
    }
    return out;
}

bool ConsoleProcess::waitForRequests(const QString& route, int count, int timeoutMs) const
{
    return waitUntil([&] { return requests(route).size() >= count; }, timeoutMs);
}

QByteArray ConsoleProcess::admin(const QByteArray& method, const QByteArray& pathAndQuery, const QByteArray& body) const
{
    const LoopbackSocket socket(LoopbackSocket::connectTo(m_httpPort));
    const int fd = socket.fd;
    QByteArray reply;
    // The test's own admin client trusts whatever the console presents.
    SSL_CTX* ctx = m_tls ? SSL_CTX_new(TLS_client_method()) : nullptr;
    SSL* ssl = ctx ? SSL_new(ctx) : nullptr;
    const timeval timeout{5, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    if (fd >= 0 && (!m_tls || (ssl && SSL_set_fd(ssl, fd) == 1 && SSL_connect(ssl) == 1))) {
        const QByteArray request = method + ' ' + pathAndQuery + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n" +
                                   "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
        if (ssl)
            SSL_write(ssl, request.constData(), request.size());
        else
            ::send(fd, request.constData(), static_cast<size_t>(request.size()), MSG_NOSIGNAL);
        char buf[65536];
        for (;;) {
            pollfd p{fd, POLLIN, 0};
            if (!(ssl && SSL_pending(ssl) > 0) && ::poll(&p, 1, 5000) <= 0)
                break;
            const int n =
                ssl ? SSL_read(ssl, buf, sizeof buf) : static_cast<int>(::recv(fd, buf, sizeof buf, 0));
            if (n <= 0)
                break;
            reply.append(buf, n);
        }
    }
    if (ssl)
        SSL_free(ssl);
    if (ctx)
        SSL_CTX_free(ctx);
    const int split = reply.indexOf("\r\n\r\n");
    return split >= 0 ? reply.mid(split + 4) : QByteArray();
}

int ConsoleProcess::push(const QByteArray& command) const
{
    return QJsonDocument::fromJson(admin("POST", "/admin/push", command)).object().value(QStringLiteral("sent")).toInt();
}

QJsonArray ConsoleProcess::connections() const
{
    return QJsonDocument::fromJson(admin("GET", "/admin/agents")).object().value(QStringLiteral("connections")).toArray();
}

QJsonArray ConsoleProcess::socketMessages() const
{
    return QJsonDocument::fromJson(admin("GET", "/admin/socket-messages")).array();
}

} // namespace edrtest
