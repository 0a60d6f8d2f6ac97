#pragma once

#include "control/ServiceInfo.h"
#include "core/ToolRunner.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

// The systemd services report and the server's service orders, all through
// "systemctl".
class ServiceManager
{
public:
    static ServiceManager* getInstance();
    static void releaseInstance();

    explicit ServiceManager(const ToolRunner& runner = ToolRunner());

    bool getListOfServices(QJsonObject& report);
    void getServiceInfo(const QString& name, ServiceInfo& info);
    QString getServiceProperty(const QString& name, const QString& property);
    unsigned int getServiceState(const QString& name);
    // 1 = disable, 2 = mask, anything else = enable.
    bool setServiceType(const QString& name, unsigned int type);
    bool startService(const QString& name);
    bool stopService(const QString& name);
    bool restartService(const QString& name);

    // Task 2: the periodic report and the service order.
    bool sendRptToServer(const QString& parameter);
    // Not permitted: nothing runs and the failure result is posted.
    bool executeSendReportToServer(const QString& parameter, bool permitted = true);
    // Exactly the body sendRptToServer posts.
    bool collectReport(QJsonObject& body) { return getListOfServices(body); }

    // Pure helpers over systemctl's output.
    // Unit names of "list-unit-files", heading and count lines included.
    static QStringList parseUnitFileList(const QByteArray& output);
    // The blocks of a "show" for several units: one per unit shown, in order.
    static QList<QStringList> splitShowBlocks(const QByteArray& output);
    // Applies "Key=value" lines to a record, in the order they stand.
    static void applyProperties(const QStringList& lines, ServiceInfo& info);
    // "show", the names, then the property pairs.
    static QStringList showArguments(const QStringList& names);
    // A name systemctl could take for an option is never passed to it.
    static bool isSafeServiceName(const QString& name);
    // '*', '?' or '[': systemctl would match the name against every loaded unit.
    static bool hasGlob(const QString& name);
    // What an order may name: a unit name by systemd's rules ("ssh.service",
    // "getty@tty1.service", "foo@.service"), never a path, a pattern or an option.
    static bool isUnitName(const QString& name);
    // "name@.service": systemd will not load a template, so show prints nothing.
    static bool isTemplateUnit(const QString& name);
    // Whether a name can share a "show" run without changing what it prints
    // (no job ids, globs or paths, nothing that could fail to be mangled).
    static bool canShareShowRun(const QString& name);

    // Every tool run is bounded; tests shorten the limit.
    void setToolTimeoutMs(int ms) { m_toolTimeoutMs = ms; }

private:
    void fillServiceInfos(QList<ServiceInfo>& services);
    bool runOrder(const QString& verb, const QString& name);

    static ServiceManager* s_instance;

    ToolRunner m_runner;
    int m_toolTimeoutMs = ToolRunner::kDefaultTimeoutMs;
    bool m_reportBusy = false;
    bool m_actionBusy = false;
};
