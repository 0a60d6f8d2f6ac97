// The services watcher against a private bus daemon, with this test playing
// systemd: the subscription, which signals count, and a restart.

#include "watch/ServiceBusWatcher.h"

#include "support/TestSupport.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QVariantMap>

#include <gtest/gtest.h>

using namespace edrtest;

namespace
{
const QString kService = QStringLiteral("org.freedesktop.systemd1");
const QString kPath = QStringLiteral("/org/freedesktop/systemd1");
const QString kManager = QStringLiteral("org.freedesktop.systemd1.Manager");

class FakeManager : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.systemd1.Manager")
public:
    int subscribed = 0;
public slots:
    void Subscribe() { ++subscribed; }
};

QDBusMessage properties(const QString& interface)
{
    QDBusMessage m = QDBusMessage::createSignal(
        QStringLiteral("/org/freedesktop/systemd1/unit/cron_2eservice"),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("PropertiesChanged"));
    m << interface << QVariantMap{{QStringLiteral("ActiveState"), QStringLiteral("active")}} << QStringList();
    return m;
}
} // namespace

TEST(ServiceBusWatcher, SubscribesCountsUnitSignalsOnlyAndSubscribesAgainAfterARestart)
{
    const QString daemon = QStandardPaths::findExecutable(QStringLiteral("dbus-daemon"));
    if (daemon.isEmpty())
        GTEST_SKIP() << "no dbus-daemon here";
    QTemporaryDir dir;
    QProcess bus;
    bus.start(daemon,
              {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address"),
               QStringLiteral("--address=unix:path=") + dir.path() + QStringLiteral("/bus")});
    ASSERT_TRUE(bus.waitForStarted(10000));
    ASSERT_TRUE(waitUntil([&] { return bus.canReadLine(); }, 10000));
    const QString address = QString::fromUtf8(bus.readLine()).trimmed();

    {
        QDBusConnection systemd = QDBusConnection::connectToBus(address, QStringLiteral("fake-systemd"));
        ASSERT_TRUE(systemd.isConnected());
        FakeManager manager;
        ASSERT_TRUE(systemd.registerObject(kPath, &manager, QDBusConnection::ExportAllSlots));
        ASSERT_TRUE(systemd.registerService(kService));

        ServiceBusWatcher watcher(2, nullptr, ServiceBusWatcher::Kind::Bus, address);
        int changes = 0;
        QString last;
        QObject::connect(&watcher, &ChangeWatcher::changed, [&](int, const QString& what) {
            ++changes;
            last = what;
        });
        ASSERT_TRUE(watcher.start());
        ASSERT_TRUE(waitUntil([&] { return manager.subscribed == 1; }, 10000));

        // Another interface's properties do not count; the unit's do, and so
        // do the manager's signals (enable, disable and mask raise only these).
        systemd.send(properties(QStringLiteral("org.freedesktop.systemd1.Service")));
        systemd.send(properties(QStringLiteral("org.freedesktop.systemd1.Unit")));
        systemd.send(QDBusMessage::createSignal(kPath, kManager, QStringLiteral("UnitFilesChanged")));
        QDBusMessage reloading = QDBusMessage::createSignal(kPath, kManager, QStringLiteral("Reloading"));
        reloading << true;
        systemd.send(reloading);
        QDBusMessage job = QDBusMessage::createSignal(kPath, kManager, QStringLiteral("JobRemoved"));
        job << 7u << QVariant::fromValue(QDBusObjectPath(QStringLiteral("/org/freedesktop/systemd1/job/7")))
            << QStringLiteral("cron.service") << QStringLiteral("done");
        systemd.send(job);
        // Delivered in order: when the job's end is in, so is all before it.
        ASSERT_TRUE(waitUntil([&] { return watcher.lastSignal() == QLatin1String("JobRemoved"); }, 10000));
        EXPECT_EQ(watcher.signalsSeen(), 4);
        EXPECT_EQ(changes, 4);
        EXPECT_EQ(last, QStringLiteral("services changed"));

        // systemd gone and back forgets its subscribers: subscribed again.
        ASSERT_TRUE(systemd.unregisterService(kService));
        ASSERT_TRUE(systemd.registerService(kService));
        ASSERT_TRUE(waitUntil([&] { return manager.subscribed == 2; }, 10000));
        EXPECT_EQ(last, QStringLiteral("service manager restarted"));
        systemd.unregisterObject(kPath);
    }
    QDBusConnection::disconnectFromBus(QStringLiteral("fake-systemd"));

    // Nothing to reach: false, and the task keeps its schedule.
    ScratchPrefix prefix;
    ServiceBusWatcher none(2, nullptr, ServiceBusWatcher::Kind::Peer,
                           QStringLiteral("unix:path=") + dir.path() + QStringLiteral("/missing"));
    EXPECT_FALSE(none.start());
    EXPECT_TRUE(prefix.traceLog().contains("systemd cannot be reached"));
    bus.terminate();
    bus.waitForFinished(10000);
}

#include "ServiceBusWatcherTest.moc"
