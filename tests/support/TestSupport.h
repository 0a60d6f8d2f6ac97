#pragma once

// Shared test helpers: fixtures, fake tools, a scratch prefix, a raw HTTP peer.

#include "core/Common.h"
#include "core/ToolRunner.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include <ostream>

// Readable QString values in assertion messages.
inline void PrintTo(const QString& s, std::ostream* os)
{
    *os << '"' << s.toStdString() << '"';
}

namespace edrtest
{

QString fixturePath(const QString& relative);    // tests/fixtures/<relative>
QByteArray readFixture(const QString& relative); // fails the test when missing
// Writes a whole file, making its directory; fails the test when it cannot.
void writeTestFile(const QString& path, const QByteArray& content);

QByteArray serverIni(int httpPort, int socketPort, int listenPort, const QByteArray& extraServerKeys);
// Polls done() while the event loop keeps running; its final answer.
bool waitUntil(const std::function<bool()>& done, int timeoutMs);

// Processes, zombies aside, whose command line (arguments joined by spaces)
// contains the marker.
int livingProcesses(const QByteArray& marker);

// A child sleeping in the background; killed and reaped with the object
// unless reap() has already waited for it.
class Sleeper
{
public:
    Sleeper();
    ~Sleeper();
    Sleeper(const Sleeper&) = delete;
    Sleeper& operator=(const Sleeper&) = delete;
    int pid() const { return m_pid; }
    bool running(); // not yet ended (an ended one is reaped here)
    int reap();     // waits for its end: the wait status

private:
    int m_pid = -1;
};

// A per-test folder of fake executables, handed to ToolRunner as its search
// path (the global PATH never changes, so tests may run in parallel). Each
// fake prints its canned output byte for byte, exits with its code and appends
// its arguments, joined by \x1f, as one line to <tool>.args.
class FakeToolDir
{
public:
    FakeToolDir();
    QString path() const { return m_dir.path(); }
    ToolRunner runner() const { return ToolRunner(QStringList{path()}); }

    void addTool(const QString& tool, const QByteArray& standardOutput, int exitCode = 0);
    void addToolFromFixture(const QString& tool, const QString& fixtureRelative, int exitCode = 0)
    {
        addTool(tool, readFixture(fixtureRelative), exitCode);
    }
    void addHangingTool(const QString& tool) { addScript(tool, "exec sleep 600\n"); } // far past any limit
    void addScript(const QString& tool, const QByteArray& shellBody); // free-form /bin/sh body

    QList<QStringList> invocations(const QString& tool) const;

private:
    void writeExecutable(const QString& tool, const QByteArray& script);
    QTemporaryDir m_dir;
};

// A scratch --prefix: sets Common's prefix for the test's lifetime and lays out
// the agent's directories; optional serverip.ini pointing at a local server.
class ScratchPrefix
{
public:
    ScratchPrefix();
    ~ScratchPrefix();
    QString path() const { return m_dir.path(); }
    void writeServerIni(const QByteArray& content);
    // extraServerKeys: more "KEY=value\n" lines for group [Server].
    void pointAtServer(int httpPort, int socketPort = 3098, int listenPort = 3097,
                       const QByteArray& extraServerKeys = QByteArray())
    {
        writeServerIni(serverIni(httpPort, socketPort, listenPort, extraServerKeys));
    }
    QByteArray traceLog() const; // the trace log written under this prefix

private:
    QTemporaryDir m_dir;
    QString m_previous;
    QString m_previousLog;
    int m_previousLevel = 0;
};

// Loopback TCP helpers for either side of a connection; the fd closes with it.
struct LoopbackSocket {
    int fd = -1;
    explicit LoopbackSocket(int f) : fd(f) {}
    ~LoopbackSocket();
    LoopbackSocket(const LoopbackSocket&) = delete;
    LoopbackSocket& operator=(const LoopbackSocket&) = delete;

    static int listenOn(int* port);                    // *port 0 picks a free one
    static int connectTo(int port, int retryMs = 0);   // -1 when refused throughout
    static int acceptOne(int listenFd, int timeoutMs); // -1 on time-out
    static QByteArray readSome(int fd, int timeoutMs); // one recv; empty on time-out or close
    static int freePort();
};

class TimeScale
{
public:
    explicit TimeScale(double s) : m_previous(Common::timeScale()) { Common::setTimeScaleForTesting(s); }
    ~TimeScale() { Common::setTimeScaleForTesting(m_previous); }

private:
    double m_previous;
};

struct RecordedRequest {
    QByteArray method;
    QByteArray target;
    QByteArray head;                              // request line and headers as sent
    QList<QPair<QByteArray, QByteArray>> headers; // in the order sent
    QByteArray body;
    QByteArray header(const QByteArray& name) const; // first match, case-insensitive
    bool hasHeader(const QByteArray& name) const;
};

struct CannedReply {
    int status = 200;
    QByteArray body = "OK";
    QByteArray contentType = "text/plain";
    bool silent = false; // accept, read, never answer
    bool close = false;  // close without answering
};

// A raw HTTP/1.1 peer on 127.0.0.1 that records every request byte for byte.
class FakeHttpServer
{
public:
    FakeHttpServer();
    ~FakeHttpServer();
    int port() const { return m_port; }

    void setReply(const CannedReply& reply)
    {
        setHandler([reply](const RecordedRequest&) { return reply; });
    }
    void setHandler(std::function<CannedReply(const RecordedRequest&)> handler);

    QList<RecordedRequest> requests() const;
    bool waitForRequests(int count, int timeoutMs) const;

private:
    void serve();
    void handle(int fd);

    int m_listenFd = -1;
    int m_port = 0;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_cv;
    QList<RecordedRequest> m_requests;
    std::function<CannedReply(const RecordedRequest&)> m_handler = [](auto&) { return CannedReply(); };
    QList<int> m_heldOpen;
};

struct ServerUnderTest {
    ScratchPrefix prefix;
    FakeHttpServer server;
    ServerUnderTest() { prefix.pointAtServer(server.port()); }

    // The JSON object of request number count, which must be the latest and have gone to route.
    QJsonObject posted(const QByteArray& route, int count = 1) const;
    bool logHas(const char* text) const { return prefix.traceLog().contains(text); }
};

QJsonObject jsonFixture(const QString& relative);

} // namespace edrtest
