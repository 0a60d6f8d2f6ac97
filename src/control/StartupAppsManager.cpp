#include "control/StartupAppsManager.h"

#include "comm/ReportSubmitter.h"
#include "control/ActionResult.h"
#include "core/CLogger.h"

#include <QDir>
#include <QDirIterator>
#include <QJsonArray>
#include <QList>
#include <QPair>

#include <algorithm>
#include <cerrno>

StartupAppsManager* StartupAppsManager::s_instance = nullptr;

namespace
{
const QString kAllUsers = QStringLiteral("All Users");
const QString kHomePrefix = QStringLiteral("/home/");

// Whole bytes: a zero byte is data here, not the end of the text.
QString utf8(const QByteArray& bytes)
{
    return QString::fromUtf8(bytes.constData(), bytes.size());
}
} // namespace

StartupAppsManager* StartupAppsManager::getInstance()
{
    if (!s_instance)
        s_instance = new StartupAppsManager();
    return s_instance;
}

void StartupAppsManager::releaseInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

StartupAppsManager::StartupAppsManager(const HostPaths& host) : m_host(host) {}

QStringList StartupAppsManager::getListOfUsers()
{
    return QDir(m_host.root(QStringLiteral("/home")))
        .entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
}

bool StartupAppsManager::hasDesktopFileExtension(const QString& file)
{
    return file.endsWith(QStringLiteral(".desktop"));
}

bool StartupAppsManager::hasServiceFileExtension(const QString& file)
{
    return file.endsWith(QStringLiteral(".service"));
}

QMap<QString, QString> StartupAppsManager::iniGroup(const QByteArray& text, const QString& group)
{
    QMap<QString, QString> keys;
    bool inGroup = false;
    int start = 0;
    while (start < text.size()) {
        int end = text.indexOf('\n', start);
        if (end < 0)
            end = text.size();
        const QByteArray line = text.mid(start, end - start).trimmed();
        start = end + 1;
        if (line.isEmpty() || line.startsWith('#') || line.startsWith(';'))
            continue;
        if (line.startsWith('[')) {
            const int close = line.indexOf(']');
            const QByteArray name = close < 0 ? line.mid(1) : line.mid(1, close - 1);
            inGroup = utf8(name) == group;
            continue;
        }
        if (!inGroup)
            continue;
        const int eq = line.indexOf('=');
        if (eq <= 0)
            continue;
        keys.insert(utf8(line.left(eq).trimmed()), utf8(line.mid(eq + 1).trimmed()));
    }
    return keys;
}

bool StartupAppsManager::parseDesktopText(const QByteArray& text, QString& name, QString& command)
{
    const QMap<QString, QString> entry = iniGroup(text, QStringLiteral("Desktop Entry"));
    name = entry.value(QStringLiteral("Name"));
    command = entry.value(QStringLiteral("Exec"));
    return !entry.isEmpty();
}

bool StartupAppsManager::parseServiceText(const QByteArray& text, QString& command, QString& description)
{
    const QMap<QString, QString> unit = iniGroup(text, QStringLiteral("Unit"));
    const QMap<QString, QString> service = iniGroup(text, QStringLiteral("Service"));
    description = unit.value(QStringLiteral("Description"));
    command = service.value(QStringLiteral("ExecStart"));
    return !unit.isEmpty() || !service.isEmpty();
}

namespace
{
// The name a unit file gives its entry: its file name without the extension.
QString unitFileName(const QString& path)
{
    const int slash = path.lastIndexOf(QLatin1Char('/'));
    const int dot = path.lastIndexOf(QLatin1Char('.'));
    return dot > slash ? path.mid(slash + 1, dot - slash - 1) : path.mid(slash + 1);
}
} // namespace

bool StartupAppsManager::parseDesktopFile(const QString& path, QString& name, QString& command, QString&)
{
    QByteArray text;
    if (HostPaths::readRegularFile(path, text, kMaxEntryFileBytes) != HostPaths::FileRead::Read)
        return false;
    return parseDesktopText(text, name, command);
}

bool StartupAppsManager::parseServiceFile(const QString& path, QString& name, QString& command,
                                          QString& description)
{
    name = unitFileName(path);
    QByteArray text;
    if (HostPaths::readRegularFile(path, text, kMaxEntryFileBytes) != HostPaths::FileRead::Read)
        return false;
    return parseServiceText(text, command, description);
}

QStringList StartupAppsManager::listEntryFiles(const QString& dir)
{
    QStringList files;
    QDirIterator it(dir, QDir::Files | QDir::Hidden);
    while (it.hasNext()) {
        it.next();
        const QString file = it.fileName();
        if (!hasDesktopFileExtension(file) && !hasServiceFileExtension(file))
            continue;
        if (files.size() == kMaxEntriesPerFolder) {
            EDR_LOG->Error(Q_FUNC_INFO, E2BIG, "%s holds more than %d start-up entries; the rest is not read",
                           qUtf8Printable(dir), kMaxEntriesPerFolder);
            break;
        }
        files << file;
    }
    std::sort(files.begin(), files.end());
    return files;
}

bool StartupAppsManager::getStartupApps(QJsonObject& report)
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    bool found = false;
    try {
        QStringList locations{QStringLiteral("/etc/xdg/autostart"), QStringLiteral("/etc/systemd/user")};
        const QStringList users = getListOfUsers();
        for (const QString& user : users)
            locations << QStringLiteral("/home/%1/.config/autostart").arg(user);

        QJsonArray apps;
        for (const QString& location : locations) {
            const QString dir = m_host.root(location);
            const QStringList files = listEntryFiles(dir);
            const QString user = location.startsWith(kHomePrefix)
                                     ? location.mid(kHomePrefix.size()).section(QLatin1Char('/'), 0, 0)
                                     : kAllUsers;
            for (const QString& file : files) {
                const bool desktop = hasDesktopFileExtension(file);
                // Users own these folders: a link to a FIFO or a device must
                // neither stop the agent nor be opened.
                const QString path = dir + QLatin1Char('/') + file;
                QByteArray text;
                const HostPaths::FileRead read = HostPaths::readRegularFile(path, text, kMaxEntryFileBytes);
                if (read == HostPaths::FileRead::NotRegular) {
                    EDR_LOG->Debug(Q_FUNC_INFO, "Skipped %s: not a regular file", qUtf8Printable(path));
                    continue;
                }
                QString name, command, description;
                if (!desktop)
                    name = unitFileName(path);
                const bool parsed = read == HostPaths::FileRead::Read &&
                                    (desktop ? parseDesktopText(text, name, command)
                                             : parseServiceText(text, command, description));
                if (!parsed)
                    EDR_LOG->Debug(Q_FUNC_INFO, "No start-up entry read from %s", qUtf8Printable(path));
                QJsonObject app;
                app.insert(QStringLiteral("Name"), name);
                app.insert(QStringLiteral("Command"), command);
                app.insert(QStringLiteral("Description"), description);
                app.insert(QStringLiteral("User"), user);
                app.insert(QStringLiteral("Location"), location);
                apps.append(app);
            }
        }
        if (apps.isEmpty()) {
            EDR_LOG->Error(Q_FUNC_INFO, errno, "Startup Apps Not Found!");
        } else {
            report.insert(QStringLiteral("Startup_Apps"), apps);
            found = true;
        }
    } catch (...) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "CATCHED");
        found = false;
    }
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
    return found;
}

bool StartupAppsManager::enableStartupTask(const QString&, const QString&, bool)
{
    // Switching entries is not supported on this platform; every order is
    // answered as failed.
    return false;
}

bool StartupAppsManager::collectReport(QJsonObject& body)
{
    return getStartupApps(body);
}

bool StartupAppsManager::sendRptToServer(const QString&)
{
    return ReportSubmitter::submitReport(Q_FUNC_INFO, m_reportBusy, STARTUP_APPS,
                                         {"Failed to Startup Apps Info.",
                                          "Successfully send Startup Apps to server.",
                                          "Failed to send Startup Apps to server."},
                                         [this](QJsonObject& body) { return getStartupApps(body); });
}

StartupAppsManager::Order StartupAppsManager::parseOrder(const QString& parameter)
{
    const QStringList fields = parameter.split(QLatin1Char('|'), Qt::KeepEmptyParts);
    Order order;
    order.enable = fields.at(0) == QLatin1String("1");
    if (fields.size() > 1)
        order.first = fields.at(1);
    if (fields.size() > 3)
        order.second = fields.at(2);
    if (fields.size() == 3)
        order.id = fields.at(2);
    else if (fields.size() == 4)
        order.id = fields.at(3);
    return order;
}

bool StartupAppsManager::executeSendReportToServer(const QString& parameter, bool permitted)
{
    BusyGuard guard(m_actionBusy);
    if (!ReportSubmitter::enter(Q_FUNC_INFO, guard))
        return false;
    const Order order = parseOrder(parameter);
    QJsonObject result;
    if (order.id)
        result.insert(QStringLiteral("_id"), *order.id);

    const bool done = permitted && enableStartupTask(order.first, order.second, order.enable);
    const QString action =
        done ? (order.enable ? QStringLiteral("Successfully Enabled")
                             : QStringLiteral("Successfully Disabled"))
             : (order.enable ? QStringLiteral("Failed to Enable") : QStringLiteral("Failed to Disable"));
    return ActionResult::finish(
        Q_FUNC_INFO, result, done,
        QStringLiteral("%1 Startup App - %2 %3").arg(action, order.first, order.second),
        QStringLiteral("%1 Startup App! - %2 %3").arg(action, order.first, order.second),
        "Successfully send Startup Apps Action to server.", "Failed to send Startup Apps Action to server.");
}
