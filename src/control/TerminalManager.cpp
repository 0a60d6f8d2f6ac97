#include "control/TerminalManager.h"

#include "comm/ReportSubmitter.h"
#include "core/AuditLog.h"
#include "core/CLogger.h"
#include "core/Common.h"

#include <QProcess>
#include <QStringList>

#include <cerrno>

TerminalManager* TerminalManager::s_instance = nullptr;

TerminalManager* TerminalManager::getInstance()
{
    if (!s_instance)
        s_instance = new TerminalManager();
    return s_instance;
}

void TerminalManager::releaseInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

TerminalManager::TerminalManager(const ToolRunner& runner) : m_runner(runner) {}

std::optional<TerminalManager::Request> TerminalManager::parseArgument(const QString& arg)
{
    const int bar = arg.indexOf(QLatin1Char('|'));
    if (bar <= 0)
        return std::nullopt;
    Request request;
    request.id = arg.left(bar);
    request.asUser = bar + 1 < arg.size() && arg.at(bar + 1) == QLatin1Char('U');
    if (bar + 2 < arg.size() && arg.at(bar + 2) == QLatin1Char('|'))
        request.command = arg.mid(bar + 3);
    else
        request.command = arg.mid(bar + 1);
    return request;
}

bool TerminalManager::run(const QString& command, bool asUser, QString& output)
{
    // Qt's own splitting (spaces separate, double quotes group); pipes and
    // redirections reach the program as plain arguments.
    QStringList words = QProcess::splitCommand(command);
    const QString program = words.isEmpty() ? QString() : words.takeFirst();
    const int timeoutMs = Common::scaledMs(commandTimeoutMs(asUser));
    const ToolResult r = m_runner.run(program, words, timeoutMs, kMaxOutputBytes, true);
    if (!r.finished) {
        EDR_LOG->Error(Q_FUNC_INFO, r.timedOut ? ETIMEDOUT : errno, "Failed to execute command!");
        return false;
    }
    output = QString::fromUtf8(r.standardOutput);
    return true;
}

bool TerminalManager::runCommand(const QString& command, QString& output, int&)
{
    return run(command, false, output);
}

bool TerminalManager::runCommandAsUser(const QString& command, QString& output, int&)
{
    // Same user and environment as runCommand; only the limit is longer.
    return run(command, true, output);
}

bool TerminalManager::executeCommand(const QString& command, bool asUser, QJsonObject& result, bool permitted)
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    if (command.isEmpty()) {
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return false;
    }
    QString output;
    int errorCode = 0;
    // A refused command reports like one that could not be run.
    const bool finished = permitted && (asUser ? runCommandAsUser(command, output, errorCode)
                                               : runCommand(command, output, errorCode));
    OrderReport::noteSucceeded(finished);
    result.insert(QStringLiteral("status"), finished ? 2 : 1);
    result.insert(QStringLiteral("Error"), 0);
    if (finished)
        result.insert(QStringLiteral("Output"), output);
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
    return true;
}

bool TerminalManager::sendRptToServer(const QString& arg, bool permitted)
{
    BusyGuard guard(m_reportBusy);
    if (!ReportSubmitter::enter(Q_FUNC_INFO, guard))
        return false;
    const std::optional<Request> request = parseArgument(arg);
    if (!request) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Invalid Parameters!");
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return false;
    }
    QJsonObject result;
    result.insert(QStringLiteral("_id"), request->id);
    result.insert(QStringLiteral("cmd"), request->command);
    if (!executeCommand(request->command, request->asUser, result, permitted)) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Failed to Send Terminal Output.");
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return false;
    }
    const bool sent = ReportSubmitter::postObject(Q_FUNC_INFO, COMMAND_OUTPUT, result,
                                                  "Successfully send Terminal Output to server.",
                                                  "Failed to send Terminal Output to server.");
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
    return sent;
}
