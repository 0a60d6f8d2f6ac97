#pragma once

#include "core/EdrAgentConfig.h"

// The tenant this agent belongs to at the server: CorporateID and CorporateKey
// of agent.conf, read on every call.
class TenantIdentity
{
public:
    TenantIdentity() = default;
    explicit TenantIdentity(const EdrAgentConfig& config) : m_config(config) {}

    QString corporateId() const { return m_config.getSetting(QStringLiteral("CorporateID")); }
    QString corporateKey() const { return m_config.getSetting(QStringLiteral("CorporateKey")); }

private:
    EdrAgentConfig m_config;
};
