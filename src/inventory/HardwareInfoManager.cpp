#include "inventory/HardwareInfoManager.h"

#include <functional>

#include "comm/ReportSubmitter.h"
#include "core/CLogger.h"
#include "inventory/CDmiInfo.h"
#include "inventory/CHardwareInfo.h"
#include "inventory/UsersAccountManager.h"

#include <QMap>

#include <cerrno>
#include <cstring>
#include <sys/utsname.h>
#include <unistd.h>

HardwareInfoManager* HardwareInfoManager::s_instance = nullptr;

HardwareInfoManager* HardwareInfoManager::getInstance()
{
    if (!s_instance)
        s_instance = new HardwareInfoManager();
    return s_instance;
}

void HardwareInfoManager::releaseInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

HardwareInfoManager::HardwareInfoManager()
    : HardwareInfoManager(HostPaths(), ToolRunner(), nullptr, NetworkAdapterInfo())
{
}

HardwareInfoManager::HardwareInfoManager(const HostPaths& host, const ToolRunner& runner,
                                         UsersAccountManager* users, const NetworkAdapterInfo& adapters)
    : m_users(users ? users : UsersAccountManager::getInstance()), m_adapters(adapters), m_host(host),
      m_runner(runner), m_systemNames(readSystemNames)
{
}

HardwareInfoManager::SystemNames HardwareInfoManager::readSystemNames()
{
    SystemNames names;
    char host[256];
    if (::gethostname(host, sizeof host) == 0) {
        host[sizeof host - 1] = '\0';
        names.hostName = QString::fromUtf8(host);
    }
    char domain[256];
    std::memset(domain, 0, sizeof domain);
    if (::getdomainname(domain, sizeof domain) == 0) {
        domain[sizeof domain - 1] = '\0';
        names.domainName = QString::fromUtf8(domain);
    }
    struct utsname uts;
    if (::uname(&uts) == 0)
        names.machine = QString::fromUtf8(uts.machine);
    return names;
}

QString HardwareInfoManager::systemTypeOf(const QString& machine)
{
    return machine.contains(QLatin1String("64")) ? QStringLiteral("x64-based PC")
                                                 : QStringLiteral("x86-based PC");
}

QJsonArray HardwareInfoManager::buildIpList(const QList<AgentDetails::_LAN_CARD_CONFIG>& cards)
{
    // Keyed by address: a repeated address keeps the netmask seen last.
    QMap<QString, QString> masks;
    for (const AgentDetails::_LAN_CARD_CONFIG& card : cards)
        for (int i = 0; i < card.ipAddresses.size(); ++i)
            masks.insert(card.ipAddresses.at(i), card.subnetMasks.value(i));
    QJsonArray list;
    for (auto it = masks.constBegin(); it != masks.constEnd(); ++it)
        list.append(it.key() + QLatin1Char('/') + it.value());
    return list;
}

bool HardwareInfoManager::getHardwareInfo(QJsonObject& report, const QString&)
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    try {
        CDmiInfo dmi(m_runner, m_toolTimeoutMs);
        QJsonArray system;
        if (dmi.getDataToJSON(system, QStringLiteral("1"))) {
            QJsonObject computer = system.at(0).toObject();
            const SystemNames names = m_systemNames ? m_systemNames() : SystemNames();
            if (names.hostName) {
                computer.insert(QStringLiteral("Name"), *names.hostName);
                computer.insert(QStringLiteral("Caption"), *names.hostName);
            }
            if (names.domainName)
                computer.insert(QStringLiteral("Domain"), *names.domainName);
            computer.insert(QStringLiteral("UserName"), m_users->getCurrentLoginUsers());
            if (names.machine)
                computer.insert(QStringLiteral("SystemType"), systemTypeOf(*names.machine));
            report.insert(QStringLiteral("ComputerSystem"), computer);
        }

        m_users->getUsersAccountInfo(report);

        // Each collector fills a fresh array that goes in whatever it returned.
        const auto insertArray = [&report](const char* key, const std::function<void(QJsonArray&)>& collect) {
            QJsonArray array;
            collect(array);
            report.insert(QLatin1String(key), array);
        };
        CHardwareInfo hardware(m_host, m_runner, m_toolTimeoutMs);
        insertArray("PhysicalMemory", [&](QJsonArray& a) { hardware.getMemoryInfoToJSON(a); });
        insertArray("Processor", [&](QJsonArray& a) { hardware.getCPUInfoToJSON(a); });
        insertArray("Disk", [&](QJsonArray& a) { hardware.getDiskInfoToJSON(a); });
        insertArray("Volumes", [&](QJsonArray& a) { hardware.getPartitionInfoToJSON(a); });
        insertArray("OperatingSystem", [&](QJsonArray& a) { hardware.getOSInfoToJSON(a); });
        insertArray("NetworkAdapter", [&](QJsonArray& a) { m_adapters.getNetworkAdapterInfo(a); });
        insertArray("BIOS", [&](QJsonArray& a) { dmi.getDataToJSON(a, QStringLiteral("0")); });
        insertArray("Battery", [&](QJsonArray& a) { dmi.getDataToJSON(a, QStringLiteral("22")); });
    } catch (...) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "CATCHED");
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return false;
    }
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
    return true;
}

bool HardwareInfoManager::collectReport(QJsonObject& body, const QString& parameter)
{
    AgentDetails* agent = AgentDetails::getInstance();
    body.insert(QStringLiteral("IpAddress"), agent->getLocalIpAddress());
    body.insert(QStringLiteral("AgentVersion"), agent->getAgentVersion());
    body.insert(QStringLiteral("IP_List"), buildIpList(agent->getAllLanCardDetails()));

    if (parameter.isEmpty())
        return getHardwareInfo(body, QString());
    // Every selector gathers the whole set again into the same object.
    bool any = false;
    const QStringList selectors = parameter.split(QLatin1Char('|'));
    for (const QString& selector : selectors)
        any = getHardwareInfo(body, selector) || any;
    return any;
}

bool HardwareInfoManager::sendRptToServer(const QString& parameter)
{
    return ReportSubmitter::submitReport(
        Q_FUNC_INFO, m_reportBusy, HARDWARE_INFO,
        {"Failed to Get Hardware Info.", "Successfully send hardware info to server.",
         "Failed to send hardware info to server."},
        [this, parameter](QJsonObject& body) { return collectReport(body, parameter); });
}
