#include "core/ToolRunner.h"

#include "core/CLogger.h"
#include "core/StopRequest.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>

#include <cerrno>
#include <csignal>
#include <dirent.h>
#include <unistd.h>

namespace {
constexpr int kSliceMs = 250;
constexpr int kTermGraceMs = 2000;

// Each child leads a process group of its own, so whatever it starts can be
// ended with it.
class GroupedProcess : public QProcess
{
protected:
    void setupChildProcess() override { ::setpgid(0, 0); }
};

// Members that already exited but wait for a reaper (zombies) count as gone.
bool groupGone(pid_t group)
{
    if (::kill(-group, 0) != 0 && errno == ESRCH)
        return true;
    DIR* proc = ::opendir("/proc");
    if (!proc)
        return false;
    bool gone = true;
    while (dirent* entry = ::readdir(proc)) {
        if (entry->d_name[0] < '1' || entry->d_name[0] > '9')
            continue;
        QFile stat(QStringLiteral("/proc/") + QLatin1String(entry->d_name) + QStringLiteral("/stat"));
        if (!stat.open(QIODevice::ReadOnly))
            continue;
        const QByteArray line = stat.read(1024);
        // "pid (comm) state ppid pgrp ...": comm may hold anything but ')'.
        const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 1).simplified().split(' ');
        if (fields.size() > 2 && fields.at(2).toLongLong() == group && fields.at(0) != "Z" && fields.at(0) != "X") {
            gone = false;
            break;
        }
    }
    ::closedir(proc);
    return gone;
}

// SIGTERM to the whole group, SIGKILL to what is left after a short grace.
void endGroup(QProcess& process)
{
    const pid_t group = static_cast<pid_t>(process.processId());
    if (group <= 0) {
        process.kill();
        process.waitForFinished(5000);
        return;
    }
    ::kill(-group, SIGTERM);
    QElapsedTimer grace;
    grace.start();
    while (grace.elapsed() < kTermGraceMs) {
        if (process.state() == QProcess::NotRunning || process.waitForFinished(50)) {
            if (groupGone(group))
                return;
            ::usleep(20000);
        }
    }
    ::kill(-group, SIGKILL);
    process.waitForFinished(5000);
    // Give the killed members their moment to exit, so none is seen alive
    // after the run has returned.
    for (int i = 0; i < 50 && !groupGone(group); ++i)
        ::usleep(20000);
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

ToolResult ToolRunner::run(const QString& program, const QStringList& arguments, int timeoutMs, qint64 maxOutput,
                           bool keepLocale) const
{
    ToolResult result;
    const QString path = findProgram(program);
    if (path.isEmpty()) {
        result.errorText = QStringLiteral("program not found: ") + program;
        return result;
    }
    if (timeoutMs <= 0)
        timeoutMs = kDefaultTimeoutMs;

    GroupedProcess process;
    process.setProgram(path);
    process.setArguments(arguments);
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    if (!keepLocale) {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("LC_ALL"), m_locale);
        process.setProcessEnvironment(env);
    }

    QElapsedTimer clock;
    clock.start();
    process.start(QIODevice::ReadOnly);
    if (!process.waitForStarted(qMin(timeoutMs, 30000))) {
        result.errorText = process.errorString();
        return result;
    }
    result.started = true;

    auto drain = [&]() {
        const QByteArray chunk = process.readAllStandardOutput();
        const qint64 room = maxOutput - result.standardOutput.size();
        if (chunk.size() > room) {
            result.outputTruncated = true;
            if (room > 0)
                result.standardOutput.append(chunk.constData(), static_cast<int>(room));
        } else {
            result.standardOutput.append(chunk);
        }
    };

    bool stopped = false;
    while (process.state() != QProcess::NotRunning) {
        const qint64 left = timeoutMs - clock.elapsed();
        if (left <= 0) {
            result.timedOut = true;
            break;
        }
        if (!process.waitForReadyRead(static_cast<int>(qMin<qint64>(left, kSliceMs)))) {
            if (process.state() != QProcess::NotRunning && StopRequest::pending()) {
                stopped = true;
                break;
            }
        }
        drain();
    }

    if (result.timedOut || stopped) {
        endGroup(process);
        drain();
        if (result.timedOut)
            EDR_LOG->Error(Q_FUNC_INFO, ETIMEDOUT, "%s overran its time limit of %d ms and was killed",
                           qUtf8Printable(program), timeoutMs);
        result.errorText = result.timedOut ? QStringLiteral("time limit exceeded") : QStringLiteral("stop requested");
        return result;
    }

    drain();
    result.finished = true;
    result.crashed = process.exitStatus() == QProcess::CrashExit;
    result.exitCode = result.crashed ? -1 : process.exitCode();
    if (result.outputTruncated)
        EDR_LOG->Error(Q_FUNC_INFO, EFBIG, "%s printed more than %lld bytes; the rest was dropped",
                       qUtf8Printable(program), static_cast<long long>(maxOutput));
    return result;
}
