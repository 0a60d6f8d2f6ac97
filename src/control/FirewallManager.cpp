#include "control/FirewallManager.h"

#include "comm/ReportSubmitter.h"
#include "control/ActionResult.h"
#include "core/CLogger.h"
#include "core/Common.h"

#include <QStringList>

#include <cerrno>

FirewallManager* FirewallManager::s_instance = nullptr;

FirewallManager* FirewallManager::getInstance()
{
    if (!s_instance)
        s_instance = new FirewallManager();
    return s_instance;
}

void FirewallManager::releaseInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

FirewallManager::FirewallManager(const ToolRunner& runner) : m_runner(runner) {}

QJsonObject FirewallManager::parseFirewallStatus(const QByteArray& statusOutput)
{
    QJsonObject status;
    status.insert(QStringLiteral("public"), !statusOutput.contains("inactive"));
    status.insert(QStringLiteral("private"), false);
    status.insert(QStringLiteral("domain"), false);
    return status;
}

std::optional<FirewallManager::Order> FirewallManager::parseOrder(const QString& parameter)
{
    const QStringList fields = parameter.split(QLatin1Char('|'), Qt::KeepEmptyParts, Qt::CaseSensitive);
    if (fields.size() != 4)
        return std::nullopt;
    // Text that is not a number reads as 0, like the server's own tooling.
    auto number = [&fields](int i) { return fields.at(i).toInt(nullptr, 10); };
    auto label = [&number](int i) {
        return number(i) == 1 ? QStringLiteral("Enabled") : QStringLiteral("Disabled");
    };
    Order order;
    order.enable = number(0) != 0;
    order.privateProfile = number(1) != 0;
    order.domainProfile = number(2) != 0;
    order.id = fields.at(3);
    order.domainLabel = label(1);
    order.privateLabel = label(2);
    order.publicLabel = label(3);
    return order;
}

QString FirewallManager::Order::message(bool succeeded) const
{
    const QString text =
        succeeded
            ? QStringLiteral("Firewall settings changed successfully. Domain: %1 | Private: %2 | Public: %3")
            : QStringLiteral("Firewall settings change failed. Domain: %1 | Private: %2 | Public: %3");
    return text.arg(domainLabel, privateLabel, publicLabel);
}

bool FirewallManager::enableFirewall(bool enable, bool, bool)
{
    const ToolResult r =
        m_runner.run(QStringLiteral("ufw"), {enable ? QStringLiteral("enable") : QStringLiteral("disable")},
                     Common::scaledMs(kToolTimeoutMs));
    if (!r.started)
        EDR_LOG->Error(Q_FUNC_INFO, ENOENT, "ufw could not be started: %s", qUtf8Printable(r.errorText));
    return r.ok();
}

bool FirewallManager::getFirewallStatus(QJsonObject& status)
{
    EDR_LOG->Debug(Q_FUNC_INFO, "IN");
    const ToolResult r =
        m_runner.run(QStringLiteral("ufw"), {QStringLiteral("status")}, Common::scaledMs(kToolTimeoutMs));
    if (!r.finished) {
        if (!r.started)
            EDR_LOG->Error(Q_FUNC_INFO, ENOENT, "ufw could not be started: %s", qUtf8Printable(r.errorText));
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return false;
    }
    const QJsonObject parsed = parseFirewallStatus(r.standardOutput);
    for (auto it = parsed.begin(); it != parsed.end(); ++it)
        status.insert(it.key(), it.value());
    EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
    return true;
}

bool FirewallManager::collectReport(QJsonObject& body)
{
    // A hung or missing ufw still makes a report, just without the profiles.
    getFirewallStatus(body);
    return true;
}

bool FirewallManager::sendRptToServer(const QString& requestId)
{
    return ReportSubmitter::submitReport(Q_FUNC_INFO, m_reportBusy, FIREWALL_STATUS,
                                         {"Failed to Firewall Status.",
                                          "Successfully send Firewall Status to server.",
                                          "Failed to send Firewall Status to server."},
                                         [this, &requestId](QJsonObject& body) {
                                             collectReport(body);
                                             if (!requestId.isEmpty())
                                                 body.insert(QStringLiteral("socId"), requestId);
                                             return true;
                                         });
}

bool FirewallManager::executeSendReportToServer(const QString& parameter, bool permitted)
{
    BusyGuard guard(m_actionBusy);
    if (!ReportSubmitter::enter(Q_FUNC_INFO, guard))
        return false;
    const std::optional<Order> order = parseOrder(parameter);
    if (!order) {
        EDR_LOG->Error(Q_FUNC_INFO, errno, "Failed to send Firewall Action to server.");
        EDR_LOG->Debug(Q_FUNC_INFO, "OUT");
        return false;
    }

    QJsonObject result;
    result.insert(QStringLiteral("_id"), order->id);
    const bool changed =
        permitted && enableFirewall(order->enable, order->privateProfile, order->domainProfile);
    const QString message = order->message(changed);
    return ActionResult::finish(Q_FUNC_INFO, result, changed, message, message,
                                "Successfully send Firewall Action to server.",
                                "Failed to send Firewall Action to server.");
}
