#include "comm/ApiManager.h"

#include "identity/ServerDetails.h"

QString ApiManager::getAPI(const API_NAME& name)
{
    static const char* const routes[] = {
        "machineInfo/registerAgent",  "machineInfo/addMachineInfo",  "machineInfo/addMachineInfo",
        "machineInfo/addStartupApps", "machineInfo/addMachineInfo",  "machineInfo/addProcesses",
        "machineInfo/addServicess",   "machineInfo/addNwMonitoring", "machineInfo/addInstallSoft",
        "cmdAndPS/cmdOutput",         "firewall/firewallStatus",     "cmdAndPS/osqueryoutput",
        "settings/InvSettingsOutput", "settings/getConfigFile",
    };
    const ServerDetails* server = ServerDetails::getInstance();
    const QString version = server->getServerAPIVersion();
    const QString port = QString::number(server->getServerPort());
    const QString ip = server->getServerIP();
    const QString scheme = server->getTlsEnabled() ? QStringLiteral("https://") : QStringLiteral("http://");
    QString url =
        scheme + ip + QLatin1Char(':') + port + QStringLiteral("/api/") + version + QLatin1Char('/');
    const int index = static_cast<int>(name);
    if (index >= 0 && index < static_cast<int>(sizeof routes / sizeof routes[0]))
        url += QLatin1String(routes[index]);
    return url;
}
