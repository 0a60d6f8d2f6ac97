#pragma once

#include "watch/ChangeWatcher.h"

#include <QDBusConnection>
#include <QString>

class QDBusMessage;
class QDBusServiceWatcher;
class QTimer;

// Units started, stopped or failed, enabled, disabled or masked, unit files
// added or removed: systemd's own signals once Subscribe() was called
// (JobRemoved, UnitFilesChanged, Reloading, PropertiesChanged of units).
// As root systemd's private socket gives them without a bus daemon; else the
// system bus. Handlers never ask systemd anything back (that would load
// units and raise more signals). A lost connection or a restarted systemd is
// found again and subscribed to anew.
class ServiceBusWatcher : public ChangeWatcher
{
    Q_OBJECT
public:
    enum class Kind { Peer, Bus };

    // address empty: /run/systemd/private as root, else the system bus.
    explicit ServiceBusWatcher(int task, QObject* parent = nullptr, Kind kind = Kind::Peer,
                               const QString& address = QString());
    ~ServiceBusWatcher() override;

    bool start() override;
    bool isConnected() const;
    int subscriptions() const { return m_subscriptions; }
    // The signals taken as changes so far, and the member name of the last.
    int signalsSeen() const { return m_signalsSeen; }
    QString lastSignal() const { return m_lastSignal; }

    static constexpr int kReconnectMs = 10000;

private slots:
    void onSignal(const QDBusMessage& message);
    void onSystemdRestarted();
    void checkConnection();

private:
    bool connectNow();
    void dropConnection();

    Kind m_kind;
    QString m_address;
    QString m_name;
    QDBusConnection m_connection;
    QDBusServiceWatcher* m_owner = nullptr;
    QTimer* m_reconnect;
    int m_subscriptions = 0;
    int m_signalsSeen = 0;
    QString m_lastSignal;
    bool m_reportedLoss = false;
};
