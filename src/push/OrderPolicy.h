#pragma once

#include "core/EdrAgentConfig.h"
#include "push/PushCommand.h"

#include <QString>
#include <QStringList>

// Which orders this machine carries out: agent.conf group [Policy], one key per
// kind of order, "allow" (the default) or "deny", and AuditFailure (default
// deny): whether an order runs when its audit record cannot be written. Read
// at every order, so an edit takes effect without a restart. A value that is
// neither counts as deny.
class OrderPolicy
{
public:
    enum Decision { Allow, Deny, Unknown };

    explicit OrderPolicy(const EdrAgentConfig& config = EdrAgentConfig());

    static QStringList keys();
    static Decision defaultDecision(const QString& key);
    // The key governing a command; empty for commands no key governs.
    static QString keyFor(const PushCommand& command);

    Decision decision(const QString& key, QString* value = nullptr) const;
    // Logs an Error line for an unknown value; only Allow permits.
    bool allows(const QString& key) const;

    // "Key=allow" lines in key order, as `edr-agent policy` prints them.
    QString describe() const;

private:
    EdrAgentConfig m_config;
};
