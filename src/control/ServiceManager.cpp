#include "control/ServiceManager.h"

#include "comm/ApiManager.h"
#include "comm/ReportSubmitter.h"
#include "control/ActionResult.h"
#include "core/CLogger.h"

#include <QJsonArray>
#include <QVector>

#include <cerrno>

ServiceManager* ServiceManager::s_instance = nullptr;

namespace
{
const char* const kShowProperties[] = {"Description",       "ExecStart",    "Type",     "ActiveState",
                                       "MainPID",           "ExecStop",     "WantedBy", "DesktopEntry",
                                       "SuccessExitStatus", "UnitFileState"};

// Bytes systemctl keeps as they are in every unit name; '@' and '\\' are
// left out, which only makes the length bound below stricter.
bool isPlainUnitByte(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == ':' ||
           c == '_' || c == '.' || c == '-';
}
// Unit types systemd knows; a name must end in one of them.
const char* const kUnitSuffixes[] = {".service", ".socket", ".device", ".mount", ".automount", ".swap",
                                     ".target",  ".path",   ".timer",  ".slice", ".scope"};

// systemd's longest unit name, in bytes.
constexpr int kMaxUnitNameLength = 255;
} // namespace

ServiceManager* ServiceManager::getInstance()
{
    if (!s_instance)
        s_instance = new ServiceManager();
    return s_instance;
}

void ServiceManager::releaseInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

ServiceManager::ServiceManager(const ToolRunner& runner) : m_runner(runner) {}

QStringList ServiceManager::parseUnitFileList(const QByteArray& output)
{
    QStringList names;
    const QStringList lines = QString::fromUtf8(output).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString& line : lines) {
        // The name ends where two spaces start the next column.
        const QString name = line.left(line.indexOf(QLatin1String("  ")));
        if (!name.isEmpty())
            names << name;
    }
    return names;
}

QList<QStringList> ServiceManager::splitShowBlocks(const QByteArray& output)
{
    QList<QStringList> blocks;
    QStringList lines = QString::fromUtf8(output).split(QLatin1Char('\n'));
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    if (lines.isEmpty())
        return blocks;
    // systemctl writes one empty line before every unit but the first.
    blocks.append(QStringList());
    for (const QString& line : qAsConst(lines)) {
        if (line.isEmpty())
            blocks.append(QStringList());
        else
            blocks.last().append(line);
    }
    return blocks;
}

void ServiceManager::applyProperties(const QStringList& lines, ServiceInfo& info)
{
    for (const QString& line : lines) {
        const int eq = line.indexOf(QLatin1Char('='));
        if (eq < 0)
            continue;
        const QStringRef key = line.leftRef(eq);
        const QString value = line.mid(eq + 1);
        if (key == QLatin1String("Description")) {
            info.setDescription(value);
        } else if (key == QLatin1String("ExecStart")) {
            info.setPathName(value);
        } else if (key == QLatin1String("Type")) {
            info.setServiceType(value);
            info.setAcceptPause(value == QLatin1String("notify") || value == QLatin1String("forking") ||
                                value == QLatin1String("simple"));
            info.setAcceptStop(value != QLatin1String("oneshot"));
        } else if (key == QLatin1String("ActiveState")) {
            const bool active = value == QLatin1String("active");
            info.setStarted(active);
            info.setState(active ? QStringLiteral("Running") : QStringLiteral("Stopped"));
        } else if (key == QLatin1String("MainPID")) {
            info.setProcessId(value.toInt(nullptr, 10));
        } else if (key == QLatin1String("ExecStop")) {
            // Whichever of Type and ExecStop comes later decides.
            info.setAcceptStop(!value.isEmpty());
        } else if (key == QLatin1String("WantedBy")) {
            info.setDelayedAutoStart(value.contains(QLatin1String("multi-user.target")));
        } else if (key == QLatin1String("DesktopEntry")) {
            info.setDesktopInteract(value == QLatin1String("true"));
        } else if (key == QLatin1String("SuccessExitStatus")) {
            info.setExitCode(value.toInt(nullptr, 10));
        } else if (key == QLatin1String("UnitFileState")) {
            info.setStartMode(value == QLatin1String("enabled") ? QStringLiteral("Auto")
                                                                : QStringLiteral("Manual"));
        }
    }
}

QStringList ServiceManager::showArguments(const QStringList& names)
{
    QStringList arguments{QStringLiteral("show")};
    arguments << names;
    for (const char* property : kShowProperties)
        arguments << QStringLiteral("--property") << QString::fromLatin1(property);
    return arguments;
}

bool ServiceManager::isSafeServiceName(const QString& name)
{
    return !name.isEmpty() && !name.startsWith(QLatin1Char('-'));
}

bool ServiceManager::hasGlob(const QString& name)
{
    for (const QChar c : name)
        if (c == QLatin1Char('*') || c == QLatin1Char('?') || c == QLatin1Char('['))
            return true;
    return false;
}

bool ServiceManager::isUnitName(const QString& name)
{
    // Everything allowed is ASCII, so characters and bytes count alike.
    if (name.isEmpty() || name.size() > kMaxUnitNameLength || name.startsWith(QLatin1Char('-')))
        return false;
    const int dot = name.lastIndexOf(QLatin1Char('.'));
    if (dot <= 0)
        return false;
    const QStringRef suffix = name.midRef(dot);
    bool known = false;
    for (const char* s : kUnitSuffixes)
        known = known || suffix == QLatin1String(s);
    if (!known)
        return false;
    // A path ("/dev/shm/x.service") would be linked into /etc/systemd/system by
    // "enable"; anything outside this set is not a unit systemd could load.
    for (int i = 0; i < dot; ++i) {
        const QChar c = name.at(i);
        const bool allowed = (c >= QLatin1Char('a') && c <= QLatin1Char('z')) ||
                             (c >= QLatin1Char('A') && c <= QLatin1Char('Z')) ||
                             (c >= QLatin1Char('0') && c <= QLatin1Char('9')) || c == QLatin1Char(':') ||
                             c == QLatin1Char('-') || c == QLatin1Char('_') || c == QLatin1Char('.') ||
                             c == QLatin1Char('\\') || c == QLatin1Char('@');
        if (!allowed)
            return false;
    }
    // "@" separates a template from its instance; it cannot start the name.
    return !name.startsWith(QLatin1Char('@'));
}

bool ServiceManager::isTemplateUnit(const QString& name)
{
    const int at = name.indexOf(QLatin1Char('@'));
    if (at <= 0 || at + 2 >= name.size() || name.at(at + 1) != QLatin1Char('.'))
        return false;
    for (int i = at + 2; i < name.size(); ++i) {
        const QChar c = name.at(i);
        if (c < QLatin1Char('a') || c > QLatin1Char('z'))
            return false;
    }
    return name.indexOf(QLatin1Char('@'), at + 1) < 0;
}

bool ServiceManager::canShareShowRun(const QString& name)
{
    if (!isSafeServiceName(name))
        return false;
    // systemctl shows numeric arguments (job ids) before the names, expands
    // globs after them and turns paths into unit names.
    QString trimmed = name;
    while (!trimmed.isEmpty() && trimmed.at(0).isSpace())
        trimmed.remove(0, 1);
    if (trimmed.startsWith(QLatin1Char('+')))
        trimmed.remove(0, 1);
    bool number = false;
    trimmed.toULongLong(&number, 0);
    if (number)
        return false;
    if (hasGlob(name) || name.contains(QLatin1Char('/')))
        return false;
    // systemctl escapes every other byte as \xNN and may append ".service";
    // a result longer than a unit name may be (255 bytes) fails the whole run.
    // ("name  state" lines with one blank give such names, and each one run
    // alone costs a process.)
    const QByteArray bytes = name.toUtf8();
    int escaped = bytes.size() + 8;
    for (const char c : bytes)
        if (!isPlainUnitByte(c))
            escaped += 3;
    return escaped <= 255;
}

void ServiceManager::getServiceInfo(const QString& name, ServiceInfo& info)
{
    if (!isSafeServiceName(name))
        return;
    QStringList names{name};
    const ToolResult result =
        m_runner.run(QStringLiteral("systemctl"), showArguments(names), m_toolTimeoutMs);
    applyProperties(QString::fromUtf8(result.standardOutput).split(QLatin1Char('\n')), info);
}

void ServiceManager::fillServiceInfos(QList<ServiceInfo>& services)
{
    // One "show" for all units. It prints one block per unit in argument
    // order and stops at the first unit it cannot show, printing nothing for
    // that one: exactly what one run per unit would have given.
    QVector<int> shared;
    for (int i = 0; i < services.size(); ++i) {
        const QString name = services.at(i).getName();
        if (isTemplateUnit(name) || !isSafeServiceName(name))
            continue;
        if (canShareShowRun(name))
            shared << i;
        else
            getServiceInfo(name, services[i]);
    }

    // A run that stops part-way is rerun from the unit after the one it could
    // not show; that unit alone is left without properties.
    int from = 0;
    while (from < shared.size()) {
        QStringList names;
        for (int k = from; k < shared.size(); ++k)
            names << services.at(shared.at(k)).getName();
        const ToolResult result =
            m_runner.run(QStringLiteral("systemctl"), showArguments(names), m_toolTimeoutMs);
        if (!result.started || result.timedOut) {
            EDR_LOG->Error(Q_FUNC_INFO, ENOENT,
                           "systemctl show gave no answer (%s); services have no properties",
                           qUtf8Printable(result.errorText));
            return;
        }
        const QList<QStringList> blocks = splitShowBlocks(result.standardOutput);
        const int remaining = shared.size() - from;
        if (blocks.size() > remaining) {
            EDR_LOG->Error(Q_FUNC_INFO, EPROTO,
                           "systemctl show printed %d blocks for %d units; asking one by one", blocks.size(),
                           remaining);
            for (int k = from; k < shared.size(); ++k) {
                ServiceInfo& info = services[shared.at(k)];
                getServiceInfo(info.getName(), info);
            }
            return;
        }
        for (int k = 0; k < blocks.size(); ++k)
            applyProperties(blocks.at(k), services[shared.at(from + k)]);
        from += blocks.size();
        if (from < shared.size()) {
            EDR_LOG->Debug(Q_FUNC_INFO, "systemctl show stopped at %s (exit %d)",
                           qUtf8Printable(services.at(shared.at(from)).getName()), result.exitCode);
            ++from;
        }
    }
}

bool ServiceManager::getListOfServices(QJsonObject& report)
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    const ToolResult result =
        m_runner.run(QStringLiteral("systemctl"),
                     {QStringLiteral("list-unit-files"), QStringLiteral("--type=service"),
                      QStringLiteral("--no-pager"), QStringLiteral("--all"), QStringLiteral("--plain")},
                     m_toolTimeoutMs);
    if (!result.started || result.timedOut)
        EDR_LOG->Error(Q_FUNC_INFO, ENOENT, "systemctl list-unit-files gave no answer (%s)",
                       qUtf8Printable(result.errorText));
    const QStringList names = parseUnitFileList(result.standardOutput);
    QList<ServiceInfo> services;
    services.reserve(names.size());
    for (const QString& name : names) {
        ServiceInfo info;
        info.setName(name);
        info.setStartName(name);
        info.setStatus(QStringLiteral("OK"));
        services.append(info);
    }
    fillServiceInfos(services);

    QJsonArray list;
    for (const ServiceInfo& info : qAsConst(services))
        list.append(info.toJson());
    if (list.isEmpty()) {
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return false;
    }
    report.insert(QStringLiteral("Services"), list);
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
    return true;
}

QString ServiceManager::getServiceProperty(const QString& name, const QString& property)
{
    if (!isSafeServiceName(name))
        return QString();
    const ToolResult result = m_runner.run(
        QStringLiteral("systemctl"),
        {QStringLiteral("show"), name, QStringLiteral("--property=") + property, QStringLiteral("--value")},
        m_toolTimeoutMs);
    return QString::fromUtf8(result.standardOutput);
}

unsigned int ServiceManager::getServiceState(const QString& name)
{
    EDR_LOG->Info(Q_FUNC_INFO, "Service Name: %s", qUtf8Printable(name));
    if (!isSafeServiceName(name))
        return 0;
    const ToolResult result =
        m_runner.run(QStringLiteral("systemctl"), {QStringLiteral("is-enabled"), name}, m_toolTimeoutMs);
    // The answer ends with a line feed, so this never matches; nothing relies on it.
    return QString::fromUtf8(result.standardOutput) == QLatin1String("enabled") ? 1 : 0;
}

bool ServiceManager::runOrder(const QString& verb, const QString& name)
{
    // systemctl expands a pattern over every loaded unit ("stop *" would stop
    // them all, this agent included) and takes a path for a unit file to link
    // in: only a unit name goes through.
    if (!isUnitName(name)) {
        EDR_LOG->Error(Q_FUNC_INFO, EINVAL, "Refusing to %s service '%s': not a unit name",
                       qUtf8Printable(verb), qUtf8Printable(name));
        return false;
    }
    const ToolResult result = m_runner.run(QStringLiteral("systemctl"), {verb, name}, m_toolTimeoutMs);
    return result.ok();
}

bool ServiceManager::setServiceType(const QString& name, unsigned int type)
{
    EDR_LOG->Info(Q_FUNC_INFO, "Service Name: %s", qUtf8Printable(name));
    const QString verb = type == 1   ? QStringLiteral("disable")
                         : type == 2 ? QStringLiteral("mask")
                                     : QStringLiteral("enable");
    return runOrder(verb, name);
}

bool ServiceManager::startService(const QString& name)
{
    EDR_LOG->Info(Q_FUNC_INFO, "Service Name: %s", qUtf8Printable(name));
    return runOrder(QStringLiteral("start"), name);
}

bool ServiceManager::stopService(const QString& name)
{
    EDR_LOG->Info(Q_FUNC_INFO, "Service Name: %s", qUtf8Printable(name));
    return runOrder(QStringLiteral("stop"), name);
}

bool ServiceManager::restartService(const QString& name)
{
    EDR_LOG->Info(Q_FUNC_INFO, "Service Name: %s", qUtf8Printable(name));
    return runOrder(QStringLiteral("restart"), name);
}

bool ServiceManager::sendRptToServer(const QString&)
{
    return ReportSubmitter::submitReport(Q_FUNC_INFO, m_reportBusy, SERVICES,
                                         {"Failed to Services Info.", "Successfully send services to server.",
                                          "Failed to send services to server."},
                                         [this](QJsonObject& body) { return collectReport(body); });
}

bool ServiceManager::executeSendReportToServer(const QString& parameter, bool permitted)
{
    BusyGuard guard(m_actionBusy);
    if (!ReportSubmitter::enter(Q_FUNC_INFO, guard))
        return false;

    // action code | service name | request id; a short order runs nothing.
    const QStringList fields = parameter.split(QLatin1Char('|'));
    const QString name = fields.size() > 1 ? fields.at(1) : QString();
    QJsonObject result;
    bool done = false;
    if (fields.size() >= 3) {
        result.insert(QStringLiteral("_id"), fields.at(2));
        switch (permitted ? fields.at(0).toInt(nullptr, 10) : 0) {
        case 1:
            done = startService(name);
            break;
        case 2:
            done = stopService(name);
            break;
        case 3:
            done = restartService(name);
            break;
        case 4:
            done = setServiceType(name, 2);
            break;
        case 5:
            done = setServiceType(name, 0);
            break;
        case 6:
            done = setServiceType(name, 1);
            break;
        default:
            break;
        }
    } else {
        EDR_LOG->Error(Q_FUNC_INFO, EINVAL, "Service order '%s' has too few fields",
                       qUtf8Printable(parameter));
    }

    // The wire text keeps its "%s": the server expects it literally.
    const QString message = done ? QStringLiteral("Successfully Service %s Action Performed!")
                                 : QStringLiteral("Failed to Perform Service %s Action!");
    return ActionResult::finish(
        Q_FUNC_INFO, result, done, message, QString(message).replace(QLatin1String("%s"), name),
        "Successfully Send Service Action to server.", "Failed to Send Service Action to server.");
}
