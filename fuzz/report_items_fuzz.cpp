// Report bodies come from agents over the network: any bytes posted to any
// report route must turn into items and change rows without harm.
#include "Orders.h"
#include "ReportItems.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    static const char* const routes[] = {"machineInfo/addMachineInfo",  "machineInfo/addStartupApps",
                                         "machineInfo/addProcesses",    "machineInfo/addServicess",
                                         "machineInfo/addNwMonitoring", "machineInfo/addInstallSoft",
                                         "firewall/firewallStatus",     "settings/InvSettingsOutput"};
    const QString route = QLatin1String(routes[data[0] % (sizeof routes / sizeof routes[0])]);
    const QJsonObject body = QJsonDocument::fromJson(QByteArray(reinterpret_cast<const char*>(data) + 1,
                                                                static_cast<int>(size - 1)))
                                 .object();
    const auto category = ReportItems::categoryOf(route, body);
    QString error;
    (void)Orders::commandText(body, 1, &error);
    if (!category)
        return 0;
    (void)ReportItems::problemWith(*category, body);
    (void)ReportItems::factsOf(*category, body);
    const ReportItems::Items items = ReportItems::itemsOf(*category, body);
    // Against nothing, itself and the same body read as every other category.
    (void)ReportItems::diff({}, items);
    if (!ReportItems::diff(items, items).empty())
        __builtin_trap();
    for (const QString& other : ReportItems::categories())
        (void)ReportItems::diff(ReportItems::itemsOf(other, body), items);
    (void)ReportItems::packagesOf(items);
    (void)ReportItems::portsOf(items);
    (void)ReportItems::servicesOf(items);
    (void)ReportItems::startupOf(items);
    (void)ReportItems::processNamesOf(items);
    (void)ReportItems::userNamesOf(items);
    return 0;
}
