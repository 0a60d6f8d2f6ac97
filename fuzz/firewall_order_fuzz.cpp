// Firewall orders and ufw status text.
#include "control/FirewallManager.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const QJsonObject status = FirewallManager::parseFirewallStatus(bytes);
    if (status.size() != 3 || status.value(QStringLiteral("public")).toBool() == bytes.contains("inactive"))
        std::abort();

    const QString parameter = QString::fromUtf8(bytes.constData(), bytes.size());
    const std::optional<FirewallManager::Order> order = FirewallManager::parseOrder(parameter);
    if (order.has_value() != (parameter.count(QLatin1Char('|')) == 3))
        std::abort();
    if (order)
        (void)order->message(true).size();
    return 0;
}
