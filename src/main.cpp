#include "core/CLogger.h"
#include "core/Common.h"
#include "core/DataDirModes.h"
#include "core/EdrAgentConfig.h"
#include "push/OrderPolicy.h"
#include "service/OutboxCommand.h"
#include "service/ReportCommand.h"
#include "service/ServiceHost.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
void applyLogLevel(const QString& fromCommandLine)
{
    LOGGER::CLogger::Level level = LOGGER::CLogger::LEVEL_INFO;
    if (!fromCommandLine.isEmpty()) {
        LOGGER::CLogger::parseLevel(fromCommandLine, &level);
    } else {
        const QString configured = EdrAgentConfig().getSetting(QStringLiteral("LogLevel"));
        if (!configured.isEmpty() && !LOGGER::CLogger::parseLevel(configured, &level))
            EDR_LOG->Error(Q_FUNC_INFO, EINVAL, "Unknown LogLevel '%s' in agent.conf; using info",
                           qUtf8Printable(configured));
    }
    EDR_LOG->setLevel(level);
}

// Prints the order policy in force; an agent.conf we cannot read would
// otherwise look like "allow everything".
int printPolicy()
{
    const EdrAgentConfig config;
    const QByteArray path = QFile::encodeName(config.path());
    struct stat st {
    };
    const bool missing = ::stat(path.constData(), &st) != 0 && errno == ENOENT;
    if (!missing && ::access(path.constData(), R_OK) != 0) {
        std::fprintf(stderr, "edr-agent: cannot read %s: %s\n", path.constData(), std::strerror(errno));
        return 1;
    }
    std::fputs(qUtf8Printable(OrderPolicy(config).describe()), stdout);
    return 0;
}
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("edr-agent"));
    QCoreApplication::setApplicationVersion(Common::getBuildVersion());

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Endpoint agent: inventories this machine, reports to "
                                                    "the management server and carries out its orders.\n"
                                                    "With no command it runs the daemon (as root).\n\n"
                                                    "Early reports: listening sockets (polled every 5 s), "
                                                    "start-up entries, services (systemd signals), packages "
                                                    "(dpkg, snap, flatpak) and ufw are watched; a change is "
                                                    "reported after 3 s of quiet, at most 30 s after it "
                                                    "(packages: after the package manager ends), at most "
                                                    "once a minute and 10 times an hour per task, and not "
                                                    "when the server already holds the same body.\n"
                                                    "agent.conf [Changes]: EarlyReports=on|off (on), "
                                                    "SkipUnchanged=on|off (off: skip scheduled snapshots the "
                                                    "server already holds), MaxSilenceMinutes=N (1440: post "
                                                    "anyway after this long)."));
    parser.addHelpOption();
    parser.addVersionOption();
    QCommandLineOption prefixOption(QStringLiteral("prefix"),
                                    QStringLiteral("Relocate every directory below DIR."),
                                    QStringLiteral("DIR"));
    QCommandLineOption levelOption(QStringLiteral("log-level"),
                                   QStringLiteral("Trace log threshold: trace, debug, info or error."),
                                   QStringLiteral("LEVEL"));
    QCommandLineOption flushOption(QStringLiteral("flush"),
                                   QStringLiteral("With outbox: deliver the pending reports now."));
    parser.addOption(prefixOption);
    parser.addOption(levelOption);
    parser.addOption(flushOption);
    parser.addPositionalArgument(QStringLiteral("command"),
                                 QStringLiteral("Optional: report NAME, policy, or outbox [--flush]"),
                                 QStringLiteral("[report NAME | policy | outbox]"));
    parser.process(app);

    Common::setPrefix(parser.value(prefixOption));
    const QString level = parser.value(levelOption);
    LOGGER::CLogger::Level parsed;
    if (!level.isEmpty() && !LOGGER::CLogger::parseLevel(level, &parsed)) {
        std::fprintf(stderr, "edr-agent: unknown log level '%s'\n", qUtf8Printable(level));
        return 2;
    }
    const QStringList positional = parser.positionalArguments();
    if (positional.size() == 1 && positional.first() == QLatin1String("outbox")) {
        ignoreUnixSignals({SIGPIPE});
        applyLogLevel(level);
        return OutboxCommand::run(parser.isSet(flushOption));
    }
    if (parser.isSet(flushOption)) {
        std::fprintf(stderr, "edr-agent: --flush goes with the outbox command\n");
        return 2;
    }
    if (positional == QStringList{QStringLiteral("policy")})
        return printPolicy();
    if (!positional.isEmpty()) {
        if (positional.first() != QLatin1String("report") || positional.size() != 2) {
            std::fprintf(
                stderr,
                "edr-agent: usage: edr-agent [options] report NAME (%s) | policy | outbox [--flush]\n",
                qUtf8Printable(ReportCommand::names().join(QStringLiteral(", "))));
            return 2;
        }
        ignoreUnixSignals({SIGPIPE});
        applyLogLevel(level);
        return ReportCommand::run(positional.at(1));
    }

    if (::getuid() != 0) {
        const int err = errno;
        EDR_LOG->Error("int main(int, char**)", err,
                       "Not sufficient permission! Please run as admin or root or sudo.");
        // Without a writable log the line above went to stderr already.
        if (!EDR_LOG->lastLineOnStderr())
            std::fprintf(stderr,
                         "edr-agent: Not sufficient permission! Please run as admin or root or sudo.\n");
        return 13;
    }

    // Everything the daemon writes (token, logs, request copies) is root's alone.
    ::umask(077);
    QDir().mkpath(Common::getEdrDirPath());
    QDir().mkpath(Common::getReportsPath());
    applyLogLevel(level);
    // Files an older version left readable are closed up before anything runs.
    DataDirModes::tighten(Common::getEdrDirPath());
    if (EdrAgentConfig().isMalformed())
        EDR_LOG->Error("int main(int, char**)", EINVAL,
                       "agent.conf could not be parsed; defaults are in use");

    ignoreUnixSignals({SIGPIPE});
    if (!catchUnixSignals({SIGTERM, SIGHUP, SIGUSR1}))
        return 1; // a daemon that cannot be stopped cleanly must not run

    int rc;
    {
        ServiceHost host;
        host.start();
        rc = QCoreApplication::exec();
        host.shutdown();
    }
    releaseInstances();
    return rc;
}
