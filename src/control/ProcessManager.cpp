#include "control/ProcessManager.h"

#include "comm/ApiManager.h"
#include "comm/ReportSubmitter.h"
#include "control/ActionResult.h"
#include "core/CLogger.h"

#include <QFile>
#include <QJsonArray>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

ProcessManager* ProcessManager::s_instance = nullptr;

ProcessManager* ProcessManager::getInstance()
{
    if (!s_instance)
        s_instance = new ProcessManager();
    return s_instance;
}

void ProcessManager::releaseInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

ProcessManager::ProcessManager(const HostPaths& host, const ToolRunner& runner)
    : m_host(host), m_runner(runner), m_info(host)
{
}

bool ProcessManager::isNumeric(const QString& text)
{
    const QByteArray bytes = text.toUtf8();
    for (const char c : bytes)
        if (c < '0' || c > '9')
            return false;
    return true;
}

void ProcessManager::parseStatus(const QByteArray& status, QJsonObject& record)
{
    static const struct {
        const char* field;
        int length;
        const char* key;
    } kFields[] = {
        {"Uid", 3, "UserId"},
        {"PPid", 4, "ParentProcessId"},
        {"Threads", 7, "ThreadCount"},
        {"State", 5, "Status"},
    };
    const char* p = status.constData();
    const char* nul = static_cast<const char*>(std::memchr(p, '\0', static_cast<size_t>(status.size())));
    const char* end = nul ? nul : p + status.size();
    while (p < end) {
        const char* lf = static_cast<const char*>(std::memchr(p, '\n', static_cast<size_t>(end - p)));
        const char* lineEnd = lf ? lf : end;
        const char* colon = static_cast<const char*>(std::memchr(p, ':', static_cast<size_t>(lineEnd - p)));
        if (colon) {
            const int keyLength = static_cast<int>(colon - p);
            for (const auto& f : kFields) {
                if (keyLength == f.length && std::memcmp(p, f.field, static_cast<size_t>(keyLength)) == 0) {
                    const QString value =
                        QString::fromUtf8(colon + 1, static_cast<int>(lineEnd - colon - 1)).trimmed();
                    record.insert(QLatin1String(f.key), value);
                    break;
                }
            }
        }
        p = lineEnd + 1;
    }
}

bool ProcessManager::getProcessDetailsByPID(int pid, QJsonObject& record)
{
    bool opened = false;
    const QByteArray status = m_info.readStatusFile(pid, &opened);
    if (opened)
        parseStatus(status, record);
    return true;
}

bool ProcessManager::getRunningProcess(QJsonObject& report)
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    try {
        QJsonArray list;
        const QByteArray root = QFile::encodeName(m_host.proc(QString()));
        DIR* dir = ::opendir(root.constData());
        if (dir) {
            const int dirFd = ::dirfd(dir);
            while (const dirent* entry = ::readdir(dir)) {
                const char* name = entry->d_name;
                // Directories (and links to them) in directory order; hidden
                // entries, "." and ".." are left out.
                if (name[0] == '.')
                    continue;
                bool isDir = entry->d_type == DT_DIR;
                if (entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN) {
                    struct stat st;
                    isDir = ::fstatat(dirFd, name, &st, 0) == 0 && S_ISDIR(st.st_mode);
                }
                if (!isDir)
                    continue;
                // Non-numeric entries ("self", "net", "acpi"...) become records
                // with pid 0: the server expects them.
                const int pid = QString::fromUtf8(name).toInt(nullptr, 10);
                QJsonObject record;
                record.insert(QStringLiteral("ProcessId"), pid);
                record.insert(QStringLiteral("Name"), m_info.getProcessNameByPID(pid));
                record.insert(QStringLiteral("CommandLine"), m_info.getProcessCommandLineByPID(pid));
                getProcessDetailsByPID(pid, record);
                list.append(record);
            }
            ::closedir(dir);
        }
        if (list.isEmpty()) {
            EDR_LOG->Trace(Q_FUNC_INFO, "No Processes found!");
            EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
            return false;
        }
        report.insert(QStringLiteral("Process"), list);
    } catch (...) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "CATCHED");
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return false;
    }
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
    return true;
}

std::optional<unsigned int> ProcessManager::parseKillTarget(const QString& target)
{
    // Only a plain positive process id: 0 would signal our own process group
    // and -1 every process on the machine.
    if (target.isEmpty() || target.size() > 10)
        return std::nullopt;
    qint64 value = 0;
    for (const QChar c : target) {
        if (c < QLatin1Char('0') || c > QLatin1Char('9'))
            return std::nullopt;
        value = value * 10 + (c.unicode() - '0');
    }
    if (value <= 0 || value > INT_MAX)
        return std::nullopt;
    return static_cast<unsigned int>(value);
}

std::optional<int> ProcessManager::parseThreadGroup(const QByteArray& status)
{
    const int nul = status.indexOf('\0');
    const QByteArray text = nul < 0 ? status : status.left(nul);
    int start = 0;
    while (start < text.size()) {
        int end = text.indexOf('\n', start);
        if (end < 0)
            end = text.size();
        if (text.mid(start, 5) == "Tgid:") {
            const QByteArray value = text.mid(start + 5, end - start - 5).trimmed();
            if (value.isEmpty() || value.size() > 10)
                return std::nullopt;
            qint64 tgid = 0;
            for (const char c : value) {
                if (c < '0' || c > '9')
                    return std::nullopt;
                tgid = tgid * 10 + (c - '0');
            }
            if (tgid <= 0 || tgid > INT_MAX)
                return std::nullopt;
            return static_cast<int>(tgid);
        }
        start = end + 1;
    }
    return std::nullopt;
}

bool ProcessManager::killProcess(unsigned int pid)
{
    if (pid == 0 || pid > static_cast<unsigned int>(INT_MAX))
        return false;
    // init ignores SIGKILL, so the kill would be reported done without
    // happening; killing ourselves would leave the order unanswered.
    if (pid == 1 || static_cast<pid_t>(pid) == ::getpid()) {
        EDR_LOG->Error(Q_FUNC_INFO, EPERM, "Refusing to kill process %u", pid);
        return false;
    }
    // kill() takes any thread id and ends the whole process it belongs to.
    // A target whose process cannot be told is refused too: without a status
    // file it does not exist (kill would fail alike), and a garbled one cannot
    // show it is not ours.
    bool opened = false;
    const QByteArray status = m_info.readStatusFile(static_cast<int>(pid), &opened);
    const std::optional<int> group = opened ? parseThreadGroup(status) : std::nullopt;
    if (!group) {
        EDR_LOG->Error(Q_FUNC_INFO, opened ? EPROTO : ESRCH,
                       "Refusing to kill process %u: its thread group cannot be read", pid);
        return false;
    }
    if (*group == 1 || *group == ::getpid()) {
        EDR_LOG->Error(Q_FUNC_INFO, EPERM, "Refusing to kill process %u: it is a thread of process %d", pid,
                       *group);
        return false;
    }
    return ::kill(static_cast<pid_t>(pid), SIGKILL) == 0;
}

bool ProcessManager::killProcess(const QString& name)
{
    Q_UNUSED(name);
    return false; // kill by name is not carried out
}

bool ProcessManager::startProcess(const QString& program, const QStringList& arguments, bool,
                                  unsigned int waitForExit)
{
    // Without waitForExit the child must not outlive the call: the runner
    // gets a short limit and ends it; otherwise the usual tool limit applies.
    const int limit = waitForExit ? ToolRunner::kDefaultTimeoutMs : 500;
    const ToolResult result = m_runner.run(program, arguments, limit);
    if (!result.started) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Failed to start the process. %s", qUtf8Printable(program));
        return false;
    }
    return true;
}

bool ProcessManager::sendRptToServer(const QString&)
{
    return ReportSubmitter::submitReport(Q_FUNC_INFO, m_reportBusy, PROCESSES,
                                         {"Failed to Processes Info.",
                                          "Successfully send processes to server.",
                                          "Failed to send processes to server."},
                                         [this](QJsonObject& body) { return collectReport(body); });
}

bool ProcessManager::executeSendReportToServer(const QString& parameter, bool permitted)
{
    BusyGuard guard(m_actionBusy);
    if (!ReportSubmitter::enter(Q_FUNC_INFO, guard))
        return false;

    // action code | target | request id; a short order runs nothing.
    const QStringList fields = parameter.split(QLatin1Char('|'));
    const QString target = fields.size() > 1 ? fields.at(1) : QString();
    QJsonObject result;
    bool killed = false;
    if (fields.size() >= 3) {
        result.insert(QStringLiteral("_id"), fields.at(2));
        const int code = permitted ? fields.at(0).toInt(nullptr, 10) : 0;
        if (code == 1) {
            const std::optional<unsigned int> pid = parseKillTarget(target);
            if (pid)
                killed = killProcess(*pid);
            else
                EDR_LOG->Error(Q_FUNC_INFO, EINVAL, "Kill target '%s' is not a process id",
                               qUtf8Printable(target));
        } else if (code == 2) {
            killed = killProcess(target);
        }
    } else {
        EDR_LOG->Error(Q_FUNC_INFO, EINVAL, "Kill order '%s' has too few fields", qUtf8Printable(parameter));
    }

    // The wire text keeps its "%s": the server expects it literally.
    const QString message = QString::fromLatin1(killed ? kKillSucceeded : kKillFailed);
    return ActionResult::finish(
        Q_FUNC_INFO, result, killed, message, QString(message).replace(QLatin1String("%s"), target),
        "Successfully Send Process Action to server.", "Failed to Send Process Action to server.");
}
