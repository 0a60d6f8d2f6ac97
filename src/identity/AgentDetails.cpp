#include "identity/AgentDetails.h"

#include "core/CLogger.h"
#include "core/Common.h"
#include "core/SystemInformation.h"
#include "identity/ServerDetails.h"

#include <QHostAddress>
#include <QHostInfo>
#include <QMutexLocker>
#include <QNetworkInterface>

#include <cerrno>

AgentDetails* AgentDetails::s_instance = nullptr;

AgentDetails* AgentDetails::getInstance()
{
    if (!s_instance)
        s_instance = new AgentDetails();
    return s_instance;
}

void AgentDetails::releaseInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

AgentDetails::AgentDetails() : m_tenant(m_config)
{
    loadDetails();
    calculateBootUniqueId();
}

void AgentDetails::loadDetails()
{
    EDR_LOG->Trace(Q_FUNC_INFO, "Loading agent info");
    if (!loadNetworkDetails())
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Failed to load network details!");
    getDomainName();
    getInteractiveUserName();
}

bool AgentDetails::calculateBootUniqueId()
{
    QString id;
    if (!SystemInformation::bootUniqueId(id))
        return false;
    QMutexLocker lock(&m_mutex);
    m_agentId = id;
    return true;
}

bool AgentDetails::loadNetworkDetails()
{
    EDR_LOG->Trace(Q_FUNC_INFO, "Loading Network Details...");
    const QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface& iface : interfaces) {
        if (!iface.isValid() || !(iface.flags() & QNetworkInterface::IsUp))
            continue;
        _LAN_CARD_CONFIG card;
        card.index = iface.index();
        card.name = iface.name();
        card.humanReadableName = iface.humanReadableName();
        card.hardwareAddress = iface.hardwareAddress();
        if (card.hardwareAddress.isEmpty() || card.hardwareAddress == QLatin1String("00:00:00:00:00:00"))
            continue;
        const QList<QNetworkAddressEntry> entries = iface.addressEntries();
        for (const QNetworkAddressEntry& entry : entries) {
            const QHostAddress ip = entry.ip();
            if (ip == QHostAddress(QHostAddress::LocalHost))
                continue;
            if (ip.protocol() != QAbstractSocket::IPv4Protocol)
                continue;
            card.ipAddresses << ip.toString();
            card.subnetMasks << entry.netmask().toString();
        }
        if (card.ipAddresses.isEmpty())
            continue;
        QMutexLocker lock(&m_mutex);
        bool known = false;
        for (const _LAN_CARD_CONFIG& existing : qAsConst(m_lanCards))
            known = known || existing.hardwareAddress == card.hardwareAddress;
        if (!known)
            m_lanCards.append(card);
    }
    EDR_LOG->Trace(Q_FUNC_INFO, "Loaded Network Info.");
    return true;
}

QString AgentDetails::getAgentID() const
{
    QMutexLocker lock(&m_mutex);
    return m_agentId;
}

QString AgentDetails::getCorporateID() const
{
    return m_tenant.corporateId();
}

QString AgentDetails::getCorporateKey() const
{
    return m_tenant.corporateKey();
}

QString AgentDetails::getCorpKey() const
{
    return m_tenant.corporateId();
}

QString AgentDetails::getLocalComputerName() const
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    return QHostInfo::localHostName();
}

QString AgentDetails::getInteractiveUserName() const
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    QString user = qEnvironmentVariable("USER");
    if (user.isEmpty())
        user = qEnvironmentVariable("USERNAME");
    return user;
}

QString AgentDetails::getDomainName() const
{
    return QString();
}

QString AgentDetails::getLastSettingTime() const
{
    return m_config.getSetting(QStringLiteral("LastSettingTime"), QStringLiteral("-"));
}

QList<AgentDetails::_LAN_CARD_CONFIG> AgentDetails::getAllLanCardDetails() const
{
    QMutexLocker lock(&m_mutex);
    return m_lanCards;
}

QString AgentDetails::getLocalIpAddress()
{
    loadNetworkDetails();
    QMutexLocker lock(&m_mutex);
    if (m_lanCards.isEmpty() || m_lanCards.first().ipAddresses.isEmpty())
        return QString();
    return m_lanCards.first().ipAddresses.first();
}

QString AgentDetails::getLocalMACAddress() const
{
    QMutexLocker lock(&m_mutex);
    return m_lanCards.isEmpty() ? QString() : m_lanCards.first().hardwareAddress;
}

int AgentDetails::getAgentListenPort() const
{
    return ServerDetails::getInstance()->getAgentListenPort();
}

QString AgentDetails::getAgentVersion() const
{
    return Common::getBuildVersion();
}
