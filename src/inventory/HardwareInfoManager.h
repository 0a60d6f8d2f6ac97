#pragma once

#include "core/HostPaths.h"
#include "core/ToolRunner.h"
#include "identity/AgentDetails.h"
#include "inventory/NetworkAdapterInfo.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QString>

#include <functional>
#include <optional>

class HttpManager;
class UsersAccountManager;

// The hardware inventory report (machine, users, memory, processors, disks,
// volumes, OS, network adapters, firmware, batteries).
class HardwareInfoManager
{
public:
    // Host name, domain name and uname's machine field; a failed call leaves
    // its member empty and its key out of the report.
    struct SystemNames {
        std::optional<QString> hostName;
        std::optional<QString> domainName;
        std::optional<QString> machine;
    };
    using SystemNamesSource = std::function<SystemNames()>;

    static HardwareInfoManager* getInstance();
    static void releaseInstance();

    // users may be null: the process-wide account manager is used then.
    HardwareInfoManager(const HostPaths& host, const ToolRunner& runner, UsersAccountManager* users,
                        const NetworkAdapterInfo& adapters);

    // Fills everything from "ComputerSystem" to "Battery". The selector is
    // accepted and not used.
    bool getHardwareInfo(QJsonObject& report, const QString& selector);

    // The whole body sendRptToServer posts, IpAddress, IP_List and
    // AgentVersion included. parameter: "|"-separated selectors, as sent.
    bool collectReport(QJsonObject& body, const QString& parameter = QString());
    bool sendRptToServer(const QString& parameter);

    void setSystemNamesSource(SystemNamesSource source) { m_systemNames = std::move(source); }
    // Limit for each dmidecode and lsblk run.
    void setToolTimeoutMs(int ms) { m_toolTimeoutMs = ms; }

    static SystemNames readSystemNames();
    static QString systemTypeOf(const QString& machine);
    // "address/netmask" per distinct address, in ascending address order.
    static QJsonArray buildIpList(const QList<AgentDetails::_LAN_CARD_CONFIG>& cards);

private:
    HardwareInfoManager();
    static HardwareInfoManager* s_instance;

    UsersAccountManager* m_users;
    bool m_reportBusy = false;
    NetworkAdapterInfo m_adapters;
    HostPaths m_host;
    ToolRunner m_runner;
    SystemNamesSource m_systemNames;
    int m_toolTimeoutMs = ToolRunner::kDefaultTimeoutMs;
};
