#pragma once

#include "core/EdrAgentConfig.h"
#include "core/TenantIdentity.h"

#include <QList>
#include <QMutex>
#include <QString>
#include <QStringList>

// Who this agent is: boot-based agent ID, names, network cards, listen port.
class AgentDetails
{
public:
    struct _LAN_CARD_CONFIG {
        int index = 0;
        QString name;
        QStringList ipAddresses;
        QStringList subnetMasks;
        QString reserved; // left empty
        QString humanReadableName;
        QString hardwareAddress;
    };

    static AgentDetails* getInstance();
    static void releaseInstance();

    QString getAgentID() const;
    QString getCorporateID() const;
    QString getCorporateKey() const;
    QString getCorpKey() const; // returns the corporate ID; callers depend on it
    QString getLocalComputerName() const;
    QString getInteractiveUserName() const;
    QString getDomainName() const;
    QString getLastSettingTime() const;
    QList<_LAN_CARD_CONFIG> getAllLanCardDetails() const;
    QString getLocalIpAddress();
    QString getLocalMACAddress() const;
    int getAgentListenPort() const;
    QString getAgentVersion() const;

    // Adds the cards that are up, have a MAC address and at least one IPv4
    // address other than 127.0.0.1; a MAC already listed is not added again.
    bool loadNetworkDetails();

private:
    AgentDetails();
    void loadDetails();
    bool calculateBootUniqueId();

    static AgentDetails* s_instance;
    mutable QMutex m_mutex; // the socket threads read the card list too
    QList<_LAN_CARD_CONFIG> m_lanCards;
    QString m_agentId;
    EdrAgentConfig m_config;
    TenantIdentity m_tenant;
};
