#pragma once

#include "core/ToolRunner.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <optional>

// Reports whether the host firewall (ufw) is active and switches it on or off
// on the server's order.
class FirewallManager
{
public:
    static FirewallManager* getInstance();
    static void releaseInstance();

    explicit FirewallManager(const ToolRunner& runner = ToolRunner());

    bool enableFirewall(bool enable, bool privateProfile, bool domainProfile);
    bool getFirewallStatus(QJsonObject& status);

    // The body of the periodic report, without a request id; always made.
    bool collectReport(QJsonObject& body);
    bool sendRptToServer(const QString& requestId);
    // Not permitted: nothing runs and the failure result is posted.
    bool executeSendReportToServer(const QString& parameter, bool permitted = true);

    // "public" is true unless the status text mentions "inactive"; the other
    // two profiles do not exist on this host and stay false.
    static QJsonObject parseFirewallStatus(const QByteArray& statusOutput);

    // An order is exactly four '|'-separated fields: switch, two unused
    // numbers and the server's identifier.
    struct Order {
        bool enable = false;
        bool privateProfile = false;
        bool domainProfile = false;
        QString id;
        // "Enabled"/"Disabled" for Domain, Private and Public. They are read
        // from fields 2 to 4, one field later than the switches, so Public
        // follows the identifier; the server expects exactly this.
        QString domainLabel, privateLabel, publicLabel;
        QString message(bool succeeded) const;
    };
    static std::optional<Order> parseOrder(const QString& parameter);

    static constexpr int kToolTimeoutMs = 30000;

private:
    static FirewallManager* s_instance;

    ToolRunner m_runner;
    bool m_reportBusy = false;
    bool m_actionBusy = false;
};
