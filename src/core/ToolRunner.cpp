#include "core/ToolRunner.h"

#include "core/CLogger.h"
#include "core/StopRequest.h"
#include "core/UniqueFd.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace
{
constexpr int kSliceMs = 250;
constexpr int kTermGraceMs = 2000;

// Members that already exited but wait for a reaper (zombies) count as gone.
bool groupGone(pid_t group)
{
    if (::kill(-group, 0) != 0 && errno == ESRCH)
        return true;
    const std::unique_ptr<DIR, int (*)(DIR*)> proc{::opendir("/proc"), ::closedir};
    if (!proc)
        return false;
    bool gone = true;
    while (dirent* entry = ::readdir(proc.get())) {
        if (entry->d_name[0] < '1' || entry->d_name[0] > '9')
            continue;
        QFile stat(QStringLiteral("/proc/") + QLatin1String(entry->d_name) + QStringLiteral("/stat"));
        if (!stat.open(QIODevice::ReadOnly))
            continue;
        const QByteArray line = stat.read(1024);
        // "pid (comm) state ppid pgrp ...": comm may hold anything but ')'.
        const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 1).simplified().split(' ');
        if (fields.size() > 2 && fields.at(2).toLongLong() == group && fields.at(0) != "Z" &&
            fields.at(0) != "X") {
            gone = false;
            break;
        }
    }
    return gone;
}

// Reaps the child when it has exited; true once it is reaped.
bool reaped(pid_t child, int* status)
{
    const pid_t r = ::waitpid(child, status, WNOHANG);
    return r == child || (r < 0 && errno == ECHILD);
}

// SIGTERM to the whole group, SIGKILL to what is left after a short grace.
// The child leads the group, so its pid is the group's id.
void endGroup(pid_t group)
{
    int status = 0;
    bool childReaped = false;
    ::kill(-group, SIGTERM);
    QElapsedTimer grace;
    grace.start();
    while (grace.elapsed() < kTermGraceMs) {
        childReaped = childReaped || reaped(group, &status);
        if (childReaped && groupGone(group))
            return;
        ::usleep(20000);
    }
    ::kill(-group, SIGKILL);
    if (!childReaped)
        ::waitpid(group, &status, 0);
    // Give the killed members their moment to exit, so none is seen alive
    // after the run has returned.
    for (int i = 0; i < 50 && !groupGone(group); ++i)
        ::usleep(20000);
}

// The child's environment: ours, with LC_ALL set to locale unless it is empty.
std::vector<QByteArray> childEnvironment(const QString& locale)
{
    std::vector<QByteArray> env;
    for (char** e = environ; e && *e; ++e) {
        if (locale.isEmpty() || std::strncmp(*e, "LC_ALL=", 7) != 0)
            env.emplace_back(*e);
    }
    if (!locale.isEmpty())
        env.push_back("LC_ALL=" + locale.toLocal8Bit());
    return env;
}

std::vector<char*> pointers(std::vector<QByteArray>& strings)
{
    std::vector<char*> out;
    out.reserve(strings.size() + 1);
    for (QByteArray& s : strings)
        out.push_back(s.data());
    out.push_back(nullptr);
    return out;
}

QStringList pathFromEnvironment()
{
    return QString::fromLocal8Bit(qgetenv("PATH")).split(QLatin1Char(':'), Qt::SkipEmptyParts);
}
} // namespace

ToolRunner::ToolRunner() : m_searchPath(pathFromEnvironment()) {}

ToolRunner::ToolRunner(const QStringList& searchPath) : m_searchPath(searchPath) {}

QString ToolRunner::findProgram(const QString& program) const
{
    if (program.isEmpty())
        return QString();
    if (program.contains(QLatin1Char('/'))) {
        QFileInfo info(program);
        return info.isFile() && info.isExecutable() ? program : QString();
    }
    if (m_searchPath.isEmpty())
        return QString();
    return QStandardPaths::findExecutable(program, m_searchPath);
}

ToolResult ToolRunner::run(const QString& program, const QStringList& arguments, int timeoutMs,
                           qint64 maxOutput, bool keepLocale) const
{
    ToolResult result;
    const QString path = findProgram(program);
    if (path.isEmpty()) {
        result.errorText = QStringLiteral("program not found: ") + program;
        return result;
    }
    if (timeoutMs <= 0)
        timeoutMs = kDefaultTimeoutMs;

    // posix_spawn rather than a full fork of this process: far cheaper for
    // the short tools the reports run. The child leads a process group of its
    // own so whatever it starts can be ended with it; stdin and stderr are
    // /dev/null; SIGPIPE, which the agent ignores, is the default again.
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        result.errorText = QString::fromLocal8Bit(std::strerror(errno));
        return result;
    }
    UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawnattr_setpgroup(&attributes, 0);
    sigset_t sigs;
    sigemptyset(&sigs);
    posix_spawnattr_setsigmask(&attributes, &sigs);
    for (int sig : {SIGPIPE, SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2})
        sigaddset(&sigs, sig);
    posix_spawnattr_setsigdefault(&attributes, &sigs);

    std::vector<QByteArray> argStrings{QFile::encodeName(path)};
    for (const QString& a : arguments)
        argStrings.push_back(a.toLocal8Bit());
    std::vector<QByteArray> envStrings = childEnvironment(keepLocale ? QString() : m_locale);
    std::vector<char*> argv = pointers(argStrings);
    std::vector<char*> envp = pointers(envStrings);

    QElapsedTimer clock;
    clock.start();
    pid_t child = -1;
    const int spawned = ::posix_spawn(&child, argv[0], &actions, &attributes, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    writeEnd.reset(); // the child's copy alone keeps the pipe open: its exit is our end of file
    if (spawned != 0) {
        result.errorText = QString::fromLocal8Bit(std::strerror(spawned));
        return result;
    }
    result.started = true;
    ::fcntl(readEnd.get(), F_SETFL, ::fcntl(readEnd.get(), F_GETFL) | O_NONBLOCK);

    bool eof = false;
    // Everything the pipe holds now; false at end of file.
    auto drain = [&]() {
        char buffer[65536];
        for (;;) {
            const ssize_t n = ::read(readEnd.get(), buffer, sizeof buffer);
            if (n > 0) {
                const qint64 room = maxOutput - result.standardOutput.size();
                if (n > room) {
                    result.outputTruncated = true;
                    if (room > 0)
                        result.standardOutput.append(buffer, static_cast<int>(room));
                } else {
                    result.standardOutput.append(buffer, static_cast<int>(n));
                }
                continue;
            }
            if (n == 0)
                eof = true;
            else if (errno == EINTR)
                continue;
            return;
        }
    };

    int status = 0;
    bool exited = false;
    bool stopped = false;
    int idleMs = 1;
    while (!exited) {
        const qint64 left = timeoutMs - clock.elapsed();
        if (left <= 0) {
            result.timedOut = true;
            break;
        }
        if (!eof) {
            pollfd p{readEnd.get(), POLLIN, 0};
            ::poll(&p, 1, static_cast<int>(qMin<qint64>(left, kSliceMs)));
            drain();
        } else {
            // Output closed; the exit follows at once unless the child lingers.
            ::usleep(static_cast<useconds_t>(qMin<qint64>(left, idleMs)) * 1000);
            idleMs = qMin(idleMs * 2, kSliceMs);
        }
        exited = reaped(child, &status);
        if (!exited && StopRequest::pending()) {
            stopped = true;
            break;
        }
    }

    if (result.timedOut || stopped) {
        endGroup(child);
        drain();
        if (result.timedOut)
            EDR_LOG->Error(Q_FUNC_INFO, ETIMEDOUT, "%s overran its time limit of %d ms and was killed",
                           qUtf8Printable(program), timeoutMs);
        result.errorText =
            result.timedOut ? QStringLiteral("time limit exceeded") : QStringLiteral("stop requested");
        return result;
    }

    drain();
    result.finished = true;
    result.crashed = WIFSIGNALED(status);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (result.outputTruncated)
        EDR_LOG->Error(Q_FUNC_INFO, EFBIG, "%s printed more than %lld bytes; the rest was dropped",
                       qUtf8Printable(program), static_cast<long long>(maxOutput));
    return result;
}
