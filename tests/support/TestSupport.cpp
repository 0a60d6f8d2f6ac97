#include "support/TestSupport.h"

#include "core/CLogger.h"
#include "core/Common.h"
#include "core/HostPaths.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace edrtest
{

QString fixturePath(const QString& relative)
{
    return QStringLiteral(EDR_FIXTURES_DIR) + QLatin1Char('/') + relative;
}

QByteArray readFixture(const QString& relative)
{
    QFile f(fixturePath(relative));
    EXPECT_TRUE(f.open(QIODevice::ReadOnly)) << "missing fixture " << qPrintable(relative);
    return f.readAll();
}

void writeTestFile(const QString& path, const QByteArray& content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(content) == content.size())
        << qPrintable(path);
}

QJsonObject jsonFixture(const QString& relative)
{
    return QJsonDocument::fromJson(readFixture(relative)).object();
}

QJsonObject ServerUnderTest::posted(const QByteArray& route, int count) const
{
    const QList<RecordedRequest> sent = server.requests();
    EXPECT_EQ(sent.size(), count);
    EXPECT_EQ(sent.value(count - 1).target, "/api/v1/" + route);
    return QJsonDocument::fromJson(sent.value(count - 1).body).object();
}

FakeToolDir::FakeToolDir()
{
    EXPECT_TRUE(m_dir.isValid());
}

void FakeToolDir::writeExecutable(const QString& tool, const QByteArray& script)
{
    const QString file = path() + QLatin1Char('/') + tool;
    writeTestFile(file, script);
    QFile::setPermissions(file, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

static QByteArray recorder(const QString& dir, const QString& tool)
{
    return "#!/bin/bash\n( IFS=$'\\x1f'; printf '%s\\n' \"$*\" ) >> '" + QFile::encodeName(dir) + "/" +
           tool.toUtf8() + ".args'\n";
}

void FakeToolDir::addTool(const QString& tool, const QByteArray& standardOutput, int exitCode)
{
    const QString out = path() + QLatin1Char('/') + tool + QStringLiteral(".stdout");
    writeTestFile(out, standardOutput);
    writeExecutable(tool, recorder(path(), tool) + "cat '" + QFile::encodeName(out) + "'\nexit " +
                              QByteArray::number(exitCode) + "\n");
}

void FakeToolDir::addScript(const QString& tool, const QByteArray& shellBody)
{
    writeExecutable(tool, recorder(path(), tool) + shellBody);
}

QList<QStringList> FakeToolDir::invocations(const QString& tool) const
{
    const QString file = path() + QLatin1Char('/') + tool + QStringLiteral(".args");
    QList<QByteArray> lines = HostPaths::readFile(file).split('\n');
    lines.removeLast(); // each line ends with a newline
    QList<QStringList> out;
    for (const QByteArray& line : lines)
        out << (line.isEmpty() ? QStringList() : QString::fromUtf8(line).split(QChar(0x1f)));
    return out;
}

ScratchPrefix::ScratchPrefix() : m_previous(Common::prefix())
{
    EXPECT_TRUE(m_dir.isValid());
    Common::setPrefix(m_dir.path());
    QDir().mkpath(Common::getSettingsPath());
    QDir().mkpath(Common::getRootPath());
    QDir().mkpath(Common::getReportsPath() + QStringLiteral("/web"));
    m_previousLog = EDR_LOG->filePath();
    m_previousLevel = EDR_LOG->level();
    EDR_LOG->setFilePath(Common::getEdrDirPath() + QStringLiteral("/EDR_Track.log"));
    EDR_LOG->setLevel(LOGGER::CLogger::LEVEL_TRACE);
}

ScratchPrefix::~ScratchPrefix()
{
    EDR_LOG->setFilePath(m_previousLog);
    EDR_LOG->setLevel(static_cast<LOGGER::CLogger::Level>(m_previousLevel));
    Common::setPrefix(m_previous);
}

QByteArray ScratchPrefix::traceLog() const
{
    return HostPaths::readFile(Common::getEdrDirPath() + QStringLiteral("/EDR_Track.log"));
}

void ScratchPrefix::writeServerIni(const QByteArray& content)
{
    writeTestFile(Common::getSettingsPath() + QStringLiteral("/serverip.ini"), content);
}

QByteArray serverIni(int httpPort, int socketPort, int listenPort, const QByteArray& extraServerKeys)
{
    return "[server]\nEDRIP=127.0.0.1\n\n[Server]\nEDRPORT=" + QByteArray::number(httpPort) +
           "\nEDRSAPIVER=v1\nEDRSPORT=" + QByteArray::number(socketPort) +
           "\nEDRSLPORT=" + QByteArray::number(listenPort) + "\n" + extraServerKeys;
}

bool waitUntil(const std::function<bool()>& done, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!done()) {
        if (deadline.hasExpired())
            return done();
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

LoopbackSocket::~LoopbackSocket()
{
    if (fd >= 0)
        ::close(fd);
}

static sockaddr_in loopback(int port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    return a;
}

int LoopbackSocket::listenOn(int* port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a = loopback(*port);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(fd, 16) != 0) {
        ::close(fd);
        return -1;
    }
    socklen_t len = sizeof a;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    *port = ntohs(a.sin_port);
    return fd;
}

int LoopbackSocket::connectTo(int port, int retryMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(retryMs);
    for (;;) {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a = loopback(port);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0)
            return fd;
        ::close(fd);
        if (std::chrono::steady_clock::now() >= deadline)
            return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

int LoopbackSocket::acceptOne(int listenFd, int timeoutMs)
{
    pollfd p{listenFd, POLLIN, 0};
    return ::poll(&p, 1, timeoutMs) > 0 ? ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC) : -1;
}

QByteArray LoopbackSocket::readSome(int fd, int timeoutMs)
{
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, timeoutMs) <= 0)
        return QByteArray();
    char buf[8192];
    const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    return n > 0 ? QByteArray(buf, static_cast<int>(n)) : QByteArray();
}

int LoopbackSocket::freePort()
{
    int port = 0;
    LoopbackSocket s(listenOn(&port));
    return port;
}

QByteArray RecordedRequest::header(const QByteArray& name) const
{
    for (const auto& h : headers)
        if (h.first.toLower() == name.toLower())
            return h.second;
    return QByteArray();
}

bool RecordedRequest::hasHeader(const QByteArray& name) const
{
    return std::any_of(headers.begin(), headers.end(),
                       [&](const auto& h) { return h.first.toLower() == name.toLower(); });
}

FakeHttpServer::FakeHttpServer()
{
    m_listenFd = LoopbackSocket::listenOn(&m_port);
    EXPECT_GE(m_listenFd, 0);
    m_thread = std::thread([this] { serve(); });
}

FakeHttpServer::~FakeHttpServer()
{
    m_stop = true;
    ::shutdown(m_listenFd, SHUT_RDWR);
    m_thread.join();
    ::close(m_listenFd);
    for (int fd : qAsConst(m_heldOpen))
        ::close(fd);
}

void FakeHttpServer::setHandler(std::function<CannedReply(const RecordedRequest&)> handler)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_handler = std::move(handler);
}

QList<RecordedRequest> FakeHttpServer::requests() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

bool FakeHttpServer::waitForRequests(int count, int timeoutMs) const
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                         [&] { return m_requests.size() >= count; });
}

void FakeHttpServer::serve()
{
    while (!m_stop) {
        const int fd = LoopbackSocket::acceptOne(m_listenFd, 100);
        if (fd >= 0)
            handle(fd);
    }
}

static bool readMore(int fd, QByteArray& buf, int timeoutMs)
{
    const QByteArray got = LoopbackSocket::readSome(fd, timeoutMs);
    buf += got;
    return !got.isEmpty();
}

void FakeHttpServer::handle(int fd)
{
    QByteArray buf;
    int headEnd;
    while ((headEnd = buf.indexOf("\r\n\r\n")) < 0)
        if (!readMore(fd, buf, 5000)) {
            ::close(fd);
            return;
        }
    RecordedRequest req;
    req.head = buf.left(headEnd);
    const QList<QByteArray> lines = req.head.split('\n');
    const QList<QByteArray> requestLine = lines.first().trimmed().split(' ');
    req.method = requestLine.value(0);
    req.target = requestLine.value(1);
    for (int i = 1; i < lines.size(); ++i) {
        const int colon = lines[i].indexOf(':');
        if (colon >= 0)
            req.headers << qMakePair(lines[i].left(colon).trimmed(), lines[i].mid(colon + 1).trimmed());
    }
    const qint64 length = req.header("Content-Length").toLongLong();
    buf.remove(0, headEnd + 4);
    if (req.header("Expect").toLower() == "100-continue" && buf.size() < length) {
        static const char cont[] = "HTTP/1.1 100 Continue\r\n\r\n";
        ::send(fd, cont, sizeof cont - 1, MSG_NOSIGNAL);
    }
    while (buf.size() < length)
        if (!readMore(fd, buf, 5000))
            break;
    req.body = buf.left(static_cast<int>(length));

    std::unique_lock<std::mutex> lock(m_mutex);
    const auto handler = m_handler;
    lock.unlock(); // the handler may ask for the requests so far
    const CannedReply reply = handler(req);
    lock.lock();
    m_requests << req;
    lock.unlock();
    m_cv.notify_all();
    if (reply.silent) {
        m_heldOpen << fd; // the client gives up by itself
        return;
    }
    const QByteArray out = "HTTP/1.1 " + QByteArray::number(reply.status) +
                           " X\r\nContent-Type: " + reply.contentType +
                           "\r\nContent-Length: " + QByteArray::number(reply.body.size()) +
                           "\r\nConnection: close\r\n\r\n" + reply.body;
    if (!reply.close)
        ::send(fd, out.constData(), static_cast<size_t>(out.size()), MSG_NOSIGNAL);
    ::close(fd);
}

Sleeper::Sleeper() : m_pid(::fork())
{
    if (m_pid == 0) {
        ::execlp("sleep", "sleep", "100", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    EXPECT_GT(m_pid, 0);
}

Sleeper::~Sleeper()
{
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        reap();
    }
}

bool Sleeper::running()
{
    int status = 0;
    if (m_pid > 0 && ::waitpid(m_pid, &status, WNOHANG) != 0)
        m_pid = -1;
    return m_pid > 0;
}

int Sleeper::reap()
{
    int status = 0;
    ::waitpid(m_pid, &status, 0);
    m_pid = -1;
    return status;
}

int livingProcesses(const QByteArray& marker)
{
    int count = 0;
    for (const QString& pid : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot))
        count += HostPaths::readFile(QStringLiteral("/proc/") + pid + QStringLiteral("/cmdline"))
                     .replace('\0', ' ')
                     .contains(marker);
    return count;
}

} // namespace edrtest
