#include "service/OutboxCommand.h"

#include "comm/HttpManager.h"
#include "core/Common.h"
#include "core/EdrAgentConfig.h"
#include "identity/SizeOperation.h"
#include "schedule/TasksManager.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

QString OutboxCommand::formatAge(qint64 seconds)
{
    seconds = qMax<qint64>(0, seconds);
    if (seconds < 60)
        return QStringLiteral("%1s").arg(seconds);
    if (seconds < 3600)
        return QStringLiteral("%1m %2s").arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
    if (seconds < 86400)
        return QStringLiteral("%1h %2m")
            .arg(seconds / 3600)
            .arg(seconds % 3600 / 60, 2, 10, QLatin1Char('0'));
    return QStringLiteral("%1d %2h")
        .arg(seconds / 86400)
        .arg(seconds % 86400 / 3600, 2, 10, QLatin1Char('0'));
}

QString OutboxCommand::listing(const QList<Outbox::Entry>& entries, const QStringList& problems, qint64 nowMs)
{
    const QStringList names = TasksManager::taskNames();
    QString out;
    if (entries.isEmpty()) {
        out += QStringLiteral("No pending reports.\n");
    } else {
        out += QStringLiteral("TASK  NAME                   KIND      AGE       SIZE        FILE\n");
        qint64 total = 0;
        for (const Outbox::Entry& e : entries) {
            const QString name = e.header.task < names.size() ? names.at(e.header.task) : QString();
            out += QStringLiteral("%1  %2 %3 %4 %5 %6\n")
                       .arg(e.header.task, 4)
                       .arg(name, -22)
                       .arg(QString::fromLatin1(PendingReport::kindName(e.header.kind)), -9)
                       .arg(formatAge((nowMs - e.header.createdMs) / 1000), -9)
                       .arg(SizeOperation::getBytesSizeInString(e.size), -11)
                       .arg(e.file);
            total += e.size;
        }
        out += QStringLiteral("%1 pending, %2 in all.\n")
                   .arg(entries.size())
                   .arg(SizeOperation::getBytesSizeInString(total));
    }
    for (const QString& problem : problems)
        out += QStringLiteral("unusable: %1\n").arg(problem);
    return out;
}

int OutboxCommand::run(bool flush)
{
    const QString dir = Outbox::defaultDirectory();
    if (!flush) {
        // The data directory is root's alone; an unreadable one must not
        // look like an empty outbox.
        for (const QString& path : {Common::getEdrDirPath(), dir}) {
            const QByteArray local = QFile::encodeName(path);
            if (::access(local.constData(), F_OK) == 0 && ::access(local.constData(), R_OK | X_OK) != 0) {
                std::fprintf(stderr, "edr-agent: cannot read %s: %s\n", local.constData(),
                             std::strerror(errno));
                return 1;
            }
        }
        QStringList problems;
        const QList<Outbox::Entry> entries = Outbox::inspect(dir, &problems);
        std::fputs(qUtf8Printable(listing(entries, problems, QDateTime::currentMSecsSinceEpoch())), stdout);
        const QString bad = dir + QStringLiteral("/bad");
        if (QFileInfo(bad).isDir())
            std::printf("Files that could not be read are kept in %s.\n", qUtf8Printable(bad));
        return 0;
    }

    if (::getuid() != 0) {
        std::fprintf(stderr, "edr-agent: outbox --flush must run as root\n");
        return 1;
    }
    ::umask(077);
    Outbox outbox(dir);
    outbox.setLimits(Outbox::configuredLimits());
    if (!outbox.lockAndScan()) {
        const qint64 holder = outbox.lockHolder();
        if (holder > 0 && ::kill(static_cast<pid_t>(holder), SIGUSR1) == 0) {
            std::printf(
                "Asked the running agent (pid %lld) to deliver its pending reports now; its trace log "
                "tells how it went.\n",
                static_cast<long long>(holder));
            return 0;
        }
        std::fprintf(stderr, "edr-agent: cannot use %s (see the trace log)\n", qUtf8Printable(dir));
        return 1;
    }
    const QString token = EdrAgentConfig().getAuthCode();
    if (token.isEmpty()) {
        std::fprintf(stderr, "edr-agent: this agent is not registered; nothing can be delivered\n");
        return 1;
    }
    HttpManager::getInstance()->setAuthorizationToke(token);
    int delivered = 0;
    int dropped = 0;
    for (;;) {
        const Outbox::Step step = outbox.replayOne();
        if (step == Outbox::Step::Delivered)
            ++delivered;
        else if (step == Outbox::Step::Dropped)
            ++dropped;
        else
            break;
    }
    const int left = outbox.entries().size();
    std::printf("Delivered %d, refused by the server %d, still pending %d.\n", delivered, dropped, left);
    return left == 0 ? 0 : 1;
}
