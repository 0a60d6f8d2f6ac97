#include "watch/ServiceBusWatcher.h"

#include "core/CLogger.h"
#include "core/Common.h"

#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <QFileInfo>
#include <QTimer>

#include <atomic>
#include <unistd.h>

namespace
{
const QString kService = QStringLiteral("org.freedesktop.systemd1");
const QString kPath = QStringLiteral("/org/freedesktop/systemd1");
const QString kManager = QStringLiteral("org.freedesktop.systemd1.Manager");
const QString kPrivate = QStringLiteral("/run/systemd/private");

QString uniqueName()
{
    static std::atomic<int> counter{0};
    return QStringLiteral("edr-systemd-%1").arg(++counter);
}
} // namespace

ServiceBusWatcher::ServiceBusWatcher(int task, QObject* parent, Kind kind, const QString& address)
    : ChangeWatcher(task, parent), m_kind(kind), m_address(address), m_name(uniqueName()),
      m_connection(m_name), m_reconnect(new QTimer(this))
{
    if (m_address.isEmpty()) {
        if (::geteuid() == 0 && QFileInfo::exists(kPrivate)) {
            m_kind = Kind::Peer;
            m_address = QStringLiteral("unix:path=") + kPrivate;
        } else {
            m_kind = Kind::Bus;
        }
    }
    connect(m_reconnect, &QTimer::timeout, this, &ServiceBusWatcher::checkConnection);
}

ServiceBusWatcher::~ServiceBusWatcher()
{
    dropConnection();
}

bool ServiceBusWatcher::isConnected() const
{
    return m_connection.isConnected();
}

void ServiceBusWatcher::dropConnection()
{
    delete m_owner;
    m_owner = nullptr;
    if (m_kind == Kind::Peer)
        QDBusConnection::disconnectFromPeer(m_name);
    else
        QDBusConnection::disconnectFromBus(m_name);
    m_connection = QDBusConnection(m_name);
}

bool ServiceBusWatcher::connectNow()
{
    if (m_kind == Kind::Peer) {
        m_connection = QDBusConnection::connectToPeer(m_address, m_name);
    } else if (m_address.isEmpty()) {
        m_connection = QDBusConnection::connectToBus(QDBusConnection::SystemBus, m_name);
    } else {
        m_connection = QDBusConnection::connectToBus(m_address, m_name);
    }
    if (!m_connection.isConnected())
        return false;
    // On a peer connection there is no bus, so no sender name to match.
    const QString service = m_kind == Kind::Peer ? QString() : kService;
    const char* slot = SLOT(onSignal(QDBusMessage));
    bool ok = m_connection.connect(service, kPath, kManager, QStringLiteral("JobRemoved"), this, slot);
    ok = m_connection.connect(service, kPath, kManager, QStringLiteral("UnitFilesChanged"), this, slot) && ok;
    ok = m_connection.connect(service, kPath, kManager, QStringLiteral("Reloading"), this, slot) && ok;
    ok = m_connection.connect(service, QString(), QStringLiteral("org.freedesktop.DBus.Properties"),
                              QStringLiteral("PropertiesChanged"),
                              QStringList{QStringLiteral("org.freedesktop.systemd1.Unit")}, QString(), this,
                              slot) &&
         ok;
    if (m_kind == Kind::Bus) {
        // systemd re-executed or restarted forgets its subscribers.
        m_owner =
            new QDBusServiceWatcher(kService, m_connection, QDBusServiceWatcher::WatchForRegistration, this);
        connect(m_owner, &QDBusServiceWatcher::serviceRegistered, this,
                &ServiceBusWatcher::onSystemdRestarted);
    }
    // Without Subscribe() systemd sends nothing; the answer is not waited for.
    m_connection.send(QDBusMessage::createMethodCall(m_kind == Kind::Peer ? QString() : kService, kPath,
                                                     kManager, QStringLiteral("Subscribe")));
    ++m_subscriptions;
    return ok;
}

bool ServiceBusWatcher::start()
{
    const bool ok = connectNow();
    if (!ok) {
        EDR_LOG->Info(Q_FUNC_INFO, "systemd cannot be reached (%s): %s",
                      qUtf8Printable(m_address.isEmpty() ? QStringLiteral("system bus") : m_address),
                      qUtf8Printable(m_connection.lastError().message()));
        dropConnection();
        return false;
    }
    m_reconnect->start(Common::scaledMs(kReconnectMs));
    return true;
}

void ServiceBusWatcher::onSignal(const QDBusMessage& message)
{
    ++m_signalsSeen;
    m_lastSignal = message.member();
    notifyChanged(QStringLiteral("services changed"));
}

void ServiceBusWatcher::onSystemdRestarted()
{
    m_connection.send(QDBusMessage::createMethodCall(kService, kPath, kManager, QStringLiteral("Subscribe")));
    ++m_subscriptions;
    notifyChanged(QStringLiteral("service manager restarted"));
}

void ServiceBusWatcher::checkConnection()
{
    if (m_connection.isConnected())
        return;
    dropConnection();
    if (connectNow()) {
        m_reportedLoss = false;
        EDR_LOG->Info(Q_FUNC_INFO, "Connected to systemd again");
        notifyChanged(QStringLiteral("service manager restarted"));
        return;
    }
    if (!m_reportedLoss) {
        m_reportedLoss = true;
        EDR_LOG->Info(Q_FUNC_INFO, "Lost the connection to systemd; trying again every %d s",
                      Common::scaledMs(kReconnectMs) / 1000);
    }
    dropConnection();
}
