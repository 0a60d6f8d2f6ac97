// Every collector, the outbox, the HTTP transport and both socket threads run
// through their failure paths under a descriptor limit just above what the
// process holds; afterwards it must hold exactly as many as before.

#include "comm/HttpManager.h"
#include "comm/Outbox.h"
#include "core/Common.h"
#include "core/HostPaths.h"
#include "push/ClientSocketThread.h"
#include "push/ServerSocketThread.h"
#include "service/ReportCommand.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace edrtest;

namespace
{
int openDescriptors()
{
    return static_cast<int>(QDir(QStringLiteral("/proc/self/fd"))
                                .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
                                .size());
}

// Tools that answer garbage and fail, found first on PATH.
void installFailingTools(const QString& dir)
{
    for (const char* tool : {"dmidecode", "lsblk", "lsof", "ss", "systemctl", "ufw", "who", "snap", "flatpak",
                             "dpkg", "dpkg-query"}) {
        QFile script(dir + QLatin1Char('/') + QLatin1String(tool));
        ASSERT_TRUE(script.open(QIODevice::WriteOnly));
        script.write("#!/bin/sh\necho '{[garbage'\nexit 1\n");
        script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
}

void collectors()
{
    for (const QString& name : ReportCommand::names())
        ReportCommand::run(name);
}

void outbox(const QString& dir)
{
    {
        Outbox box(dir);
        box.lockAndScan();
        box.setPoster([](API_NAME, const QByteArray&) { return HttpManager::Outcome{false, 0, {}}; });
        box.keep("test", PROCESSES, "{}", QStringLiteral("no answer"));
        box.keep("test", ACTION_RESULT, "{}", QStringLiteral("no answer"));
        box.replayOne();
        Outbox second(dir); // locked out
        second.lockAndScan();
        box.setPoster([](API_NAME, const QByteArray&) { return HttpManager::Outcome{true, 200, {}}; });
        while (box.replayOne() == Outbox::Step::Delivered) {
        }
    }
    // Files that cannot be used, and a directory that is a file.
    QFile bad(dir + QStringLiteral("/0000000009-03.rpt"));
    if (bad.open(QIODevice::WriteOnly))
        bad.write("0003 not a header");
    bad.close();
    QFile::link(QStringLiteral("/etc/hostname"), dir + QStringLiteral("/0000000010-03.rpt"));
    Outbox(dir).lockAndScan();
    Outbox(dir + QStringLiteral("/0000000009-03.rpt/x")).lockAndScan();
}

void transport()
{
    const int closed = LoopbackSocket::freePort();
    QString response;
    HttpManager::getInstance()->sendDataToServer(
        true, QStringLiteral("http://127.0.0.1:%1/api/v1/machineInfo/addProcesses").arg(closed), 3,
        {{QStringLiteral("data"), QStringLiteral("{}")}}, response);
    HttpManager::getInstance()->checkPort("127.0.0.1", closed);
}

// A listener out of descriptors leaves its backlog full, where a blocking
// connect would wait out the kernel's SYN retries.
int connectBriefly(int port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return -1;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    pollfd p{fd, POLLOUT, 0};
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 ||
        (errno == EINPROGRESS && ::poll(&p, 1, 1000) > 0)) {
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
        return fd;
    }
    ::close(fd);
    return -1;
}

int bindFailures()
{
    return HostPaths::readFile(Common::getEdrDirPath() + QStringLiteral("/EDR_Track.log"))
        .count("bind Failed!");
}

// Threads are started before the limit is lowered: Qt cannot start one
// without descriptors for its event dispatcher.
void socketThreads(const std::function<void()>& lowerLimit, const std::function<void()>& restoreLimit)
{
    TimeScale scale(0.1); // pauses of a few hundred ms
    // The server connection's run, on this thread: refused, then accepted
    // and closed (the stop ends it where no descriptor was left to accept).
    ServerSocketThread connection;
    connection.setServerIpAddress(QStringLiteral("127.0.0.1"));
    int port = 0;
    LoopbackSocket server(LoopbackSocket::listenOn(&port));
    lowerLimit();
    connection.setServerSocketPort(LoopbackSocket::freePort());
    connection.connectToServerSocket();
    connection.setServerSocketPort(port);
    std::thread closer([&] {
        {
            LoopbackSocket peer(LoopbackSocket::acceptOne(server.fd, 5000));
        }
        connection.requestStop();
    });
    connection.connectToServerSocket();
    closer.join();
    connection.clearStop();
    restoreLimit();

    LoopbackSocket taken(LoopbackSocket::listenOn(&port));
    ClientSocketThread listener;
    listener.setProtocol(ClientSocketThread::TCP);
    listener.setClientPort(static_cast<unsigned int>(port));
    listener.clearStop();
    const int failures = bindFailures();
    listener.start();
    waitUntil([&] { return bindFailures() > failures; }, 5000);
    listener.requestStop();
    listener.wait();

    const int free = LoopbackSocket::freePort();
    listener.setClientPort(static_cast<unsigned int>(free));
    listener.clearStop();
    listener.start();
    {
        LoopbackSocket first(LoopbackSocket::connectTo(free, 5000));
    } // listening
    lowerLimit();
    for (const QByteArray& text : {QByteArray("garbage"), QByteArray(), QByteArray("RESET#$#TRACE_LOG")}) {
        LoopbackSocket client(connectBriefly(free));
        ::send(client.fd, text.constData(), static_cast<size_t>(text.size()), MSG_NOSIGNAL);
        LoopbackSocket::readSome(client.fd, 1000);
    }
    restoreLimit();
    listener.requestStop();
    listener.wait();
}

// The child's exit status: 0 when every round gave its descriptors back.
int runRounds()
{
    QTemporaryDir tools;
    installFailingTools(tools.path());
    qputenv("PATH", QFile::encodeName(tools.path()));
    const int devNull = ::open("/dev/null", O_WRONLY);
    ::dup2(devNull, STDOUT_FILENO); // the reports' JSON
    ::close(devNull);
    const QString pending = Common::getReportsPath() + QStringLiteral("/edr/pending");
    rlimit original{};
    ::getrlimit(RLIMIT_NOFILE, &original);
    rlimit low = original;
    const auto lower = [&] { ::setrlimit(RLIMIT_NOFILE, &low); };
    const auto restore = [&] { ::setrlimit(RLIMIT_NOFILE, &original); };
    const struct {
        const char* name;
        std::function<void()> run;
    } parts[] = {{"collectors", [&] { lower(), collectors(), restore(); }},
                 {"outbox", [&] { lower(), outbox(pending), restore(); }},
                 {"transport", [&] { lower(), transport(), restore(); }},
                 {"socket threads", [&] { socketThreads(lower, restore); }}};
    // Once without a limit: what stays open for good (the trace log, loaded
    // libraries) is opened here.
    for (const auto& part : parts)
        part.run();
    const int baseline = openDescriptors();
    int failures = 0;
    for (int headroom : {1, 3, 16}) {
        for (const auto& part : parts) {
            const int before = openDescriptors();
            low.rlim_cur = static_cast<rlim_t>(before + headroom);
            part.run();
            const int after = openDescriptors();
            if (after != before) {
                std::fprintf(stderr, "%s with %d spare descriptors: %d open after, %d before\n", part.name,
                             headroom, after, before);
                ++failures;
            }
        }
    }
    if (openDescriptors() != baseline)
        ++failures;
    return failures == 0 ? 0 : 1;
}
} // namespace

TEST(DescriptorLeak, FailurePathsGiveBackEveryDescriptor)
{
    // A fresh process runs the rounds: nothing other tests left open counts.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ScratchPrefix prefix;
    EXPECT_EXIT(std::exit(runRounds()), ::testing::ExitedWithCode(0), "");
}
