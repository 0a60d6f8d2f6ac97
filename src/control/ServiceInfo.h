#pragma once

#include <QJsonObject>
#include <QString>

// One systemd service as the services report shows it.
class ServiceInfo
{
public:
    QString getName() const { return m_name; }
    void setName(const QString& value) { m_name = value; }
    QString getStartName() const { return m_startName; }
    void setStartName(const QString& value) { m_startName = value; }
    QString getDisplayName() const { return m_displayName; }
    void setDisplayName(const QString& value) { m_displayName = value; }
    QString getDescription() const { return m_description; }
    void setDescription(const QString& value) { m_description = value; }
    QString getPathName() const { return m_pathName; }
    void setPathName(const QString& value) { m_pathName = value; }
    QString getServiceType() const { return m_serviceType; }
    void setServiceType(const QString& value) { m_serviceType = value; }
    QString getState() const { return m_state; }
    void setState(const QString& value) { m_state = value; }
    bool getStarted() const { return m_started; }
    void setStarted(bool value) { m_started = value; }
    int getProcessId() const { return m_processId; }
    void setProcessId(int value) { m_processId = value; }
    int getExitCode() const { return m_exitCode; }
    void setExitCode(int value) { m_exitCode = value; }
    QString getStartMode() const { return m_startMode; }
    void setStartMode(const QString& value) { m_startMode = value; }
    bool getDelayedAutoStart() const { return m_delayedAutoStart; }
    void setDelayedAutoStart(bool value) { m_delayedAutoStart = value; }
    bool getDesktopInteract() const { return m_desktopInteract; }
    void setDesktopInteract(bool value) { m_desktopInteract = value; }
    bool getAcceptPause() const { return m_acceptPause; }
    void setAcceptPause(bool value) { m_acceptPause = value; }
    bool getAcceptStop() const { return m_acceptStop; }
    void setAcceptStop(bool value) { m_acceptStop = value; }
    QString getStatus() const { return m_status; }
    void setStatus(const QString& value) { m_status = value; }

    // The record with all sixteen keys.
    QJsonObject toJson() const;

private:
    QString m_name;
    QString m_startName;
    QString m_displayName;
    QString m_description;
    QString m_pathName;
    QString m_serviceType;
    QString m_state;
    bool m_started = false;
    int m_processId = 0;
    int m_exitCode = 0;
    QString m_startMode;
    bool m_delayedAutoStart = false;
    bool m_desktopInteract = false;
    bool m_acceptPause = false;
    bool m_acceptStop = false;
    QString m_status;
};
