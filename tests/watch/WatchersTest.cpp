// The watchers against real kernel mechanisms: inotify on a scratch root,
// OFD lock tests, sock_diag on this host's loopback.

#include "core/HostPaths.h"
#include "core/SockDiag.h"
#include "watch/DirectoryWatcher.h"
#include "watch/InotifyWatcher.h"
#include "watch/ListeningSocketWatcher.h"
#include "watch/SoftwareWatcher.h"

#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace edrtest;

namespace
{
// Counts what a watcher says; a marker file in a watched place serves as a
// barrier, since inotify delivers in order.
struct Recorder {
    int count = 0;
    QString last;
    void attach(ChangeWatcher& w)
    {
        QObject::connect(&w, &ChangeWatcher::changed, [this](int, const QString& what) {
            ++count;
            last = what;
        });
    }
    bool waitFor(int n)
    {
        return waitUntil([&] { return count >= n; }, 10000);
    }
};

void mkdirs(const QString& path)
{
    ASSERT_TRUE(QDir().mkpath(path)) << qPrintable(path);
}
} // namespace

TEST(DirectoryWatcher, StartupLocationsAppearGoAndNeverLeadOutOfTheTree)
{
    QTemporaryDir root;
    QTemporaryDir outside;
    const QString r = root.path();
    mkdirs(r + "/etc/xdg/autostart");
    mkdirs(r + "/home/alice");
    mkdirs(outside.path() + "/.config/autostart");
    // bob's home is a symlink out of /home: never watched through it.
    ASSERT_TRUE(QFile::link(outside.path(), r + "/home/bob"));

    InotifyWatcher inotify;
    ASSERT_TRUE(inotify.open());
    DirectoryWatcher watcher(&inotify, 1, QStringLiteral("start-up entries changed"),
                             [r] { return DirectoryWatcher::startupTargets(r); });
    Recorder seen;
    seen.attach(watcher);
    ASSERT_TRUE(watcher.start());
    // Missing locations are watched through their nearest existing parent.
    EXPECT_EQ(watcher.watchedPaths(),
              (QStringList{r + "/etc", r + "/etc/xdg/autostart", r + "/home", r + "/home/alice"}));

    writeTestFile(r + "/etc/xdg/autostart/a.desktop", "[Desktop Entry]\n");
    ASSERT_TRUE(seen.waitFor(1));
    EXPECT_EQ(seen.last, QStringLiteral("start-up entries changed"));

    // Unrelated entries next to a missing location do not count; the
    // location's creation does, and then what is put into it.
    writeTestFile(r + "/home/alice/notes.txt", "x");
    writeTestFile(outside.path() + "/.config/autostart/evil.desktop", "x");
    mkdirs(r + "/home/alice/.config/autostart");
    ASSERT_TRUE(seen.waitFor(2));
    const int afterCreate = seen.count;
    ASSERT_TRUE(waitUntil(
        [&] { return watcher.watchedPaths().contains(r + "/home/alice/.config/autostart"); }, 10000));
    writeTestFile(r + "/home/alice/.config/autostart/b.desktop", "x");
    ASSERT_TRUE(seen.waitFor(afterCreate + 1));
    EXPECT_FALSE(watcher.watchedPaths().join(',').contains(outside.path()));

    // A new home is a change, and its autostart folder is then looked for.
    const int beforeHome = seen.count;
    mkdirs(r + "/home/carol");
    ASSERT_TRUE(seen.waitFor(beforeHome + 1));
    ASSERT_TRUE(waitUntil([&] { return watcher.watchedPaths().contains(r + "/home/carol"); }, 10000));

    // The system folder replaced by a file: a change, and its parent is
    // watched so that its return is seen.
    const int beforeSwap = seen.count;
    ASSERT_TRUE(QDir(r + "/etc/xdg/autostart").removeRecursively());
    writeTestFile(r + "/etc/xdg/autostart", "not a directory");
    ASSERT_TRUE(seen.waitFor(beforeSwap + 1));
    ASSERT_TRUE(waitUntil([&] { return watcher.watchedPaths().contains(r + "/etc/xdg"); }, 10000));
    EXPECT_FALSE(watcher.watchedPaths().contains(r + "/etc/xdg/autostart"));
}

// A queue overflow loses events of every kind: each inotify watcher takes it
// as a change, also one whose own folders stayed quiet.
TEST(DirectoryWatcher, QueueOverflowIsAChangeOfEveryKind)
{
    const int queued =
        HostPaths::readFile(QStringLiteral("/proc/sys/fs/inotify/max_queued_events")).trimmed().toInt();
    if (queued <= 0 || queued > 100000)
        GTEST_SKIP() << "inotify queue too long to fill here";
    QTemporaryDir root;
    const QString r = root.path();
    mkdirs(r + "/etc/xdg/autostart");
    mkdirs(r + "/etc/ufw");
    InotifyWatcher inotify;
    ASSERT_TRUE(inotify.open());
    DirectoryWatcher startup(&inotify, 1, QStringLiteral("start-up entries changed"),
                             [r] { return DirectoryWatcher::startupTargets(r); });
    DirectoryWatcher firewall(&inotify, 22, QStringLiteral("firewall settings changed"),
                              [r] { return DirectoryWatcher::firewallTargets(r); });
    Recorder seenStartup, seenFirewall;
    seenStartup.attach(startup);
    seenFirewall.attach(firewall);
    ASSERT_TRUE(startup.start() && firewall.start());
    // No event loop meanwhile: the kernel's queue fills up.
    for (int i = 0; i <= queued / 2; ++i) {
        const QByteArray name = QFile::encodeName(r + "/etc/xdg/autostart/f" + QString::number(i));
        const int fd = ::open(name.constData(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);
        ::close(fd);
    }
    ASSERT_TRUE(seenFirewall.waitFor(1));
    EXPECT_EQ(seenFirewall.last, QStringLiteral("change queue overflowed"));
    EXPECT_GE(seenStartup.count, 1);
}

TEST(DirectoryWatcher, InspectRefusesSymlinksOnTheWayAndNamesTheNearestDirectory)
{
    QTemporaryDir root;
    const QString r = root.path();
    mkdirs(r + "/real/sub");
    ASSERT_TRUE(QFile::link(r + "/real", r + "/link"));
    DirectoryWatcher::Inspection i = DirectoryWatcher::inspect(r + "/link/sub");
    EXPECT_EQ(i.place, DirectoryWatcher::Place::Absent);
    EXPECT_EQ(i.nearest, r);
    EXPECT_EQ(i.child, QStringLiteral("link"));
    i = DirectoryWatcher::inspect(r + "/real/sub/missing/deeper");
    EXPECT_EQ(i.place, DirectoryWatcher::Place::Absent);
    EXPECT_EQ(i.nearest, r + "/real/sub");
    EXPECT_EQ(i.child, QStringLiteral("missing"));
    EXPECT_EQ(DirectoryWatcher::inspect(r + "/real/sub").place, DirectoryWatcher::Place::Directory);
    EXPECT_EQ(DirectoryWatcher::inspect(r + "/real/../real").place, DirectoryWatcher::Place::Absent);
}

TEST(SoftwareWatcher, DpkgRunsAreSeenAndTheFrontendLockHoldsTheReportBack)
{
    QTemporaryDir root;
    const QString dpkg = root.path() + "/var/lib/dpkg";
    mkdirs(dpkg);
    mkdirs(root.path() + "/var/lib/flatpak");
    const QString lock = dpkg + "/lock-frontend";
    writeTestFile(lock, "");
    InotifyWatcher inotify;
    ASSERT_TRUE(inotify.open());
    SoftwareWatcher watcher(&inotify, 4, root.path());
    Recorder seen;
    seen.attach(watcher);
    ASSERT_TRUE(watcher.start());
    EXPECT_FALSE(watcher.holdsBack());

    // dpkg's scratch files do not count; status replaced by rename does.
    writeTestFile(dpkg + "/status-new", "Package: x\n");
    ASSERT_EQ(::rename(QFile::encodeName(dpkg + "/status-new").constData(),
                       QFile::encodeName(dpkg + "/status").constData()),
              0);
    ASSERT_TRUE(seen.waitFor(1));
    EXPECT_EQ(seen.count, 1);
    EXPECT_EQ(seen.last, QStringLiteral("packages changed"));
    // Testing the lock opens it read-only: that raises nothing of our own.
    EXPECT_FALSE(watcher.holdsBack());
    writeTestFile(root.path() + "/var/lib/flatpak/.changed", "");
    ASSERT_TRUE(seen.waitFor(2));

    // A package manager in another process holding the lock (a POSIX lock,
    // as apt and dpkg take it) holds the report back until it lets go.
    int go[2];
    int held[2];
    ASSERT_EQ(::pipe(go), 0);
    ASSERT_EQ(::pipe(held), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(go[1]);
        ::close(held[0]);
        const int fd = ::open(QFile::encodeName(lock).constData(), O_RDWR);
        struct flock fl {
        };
        fl.l_type = F_WRLCK;
        fl.l_whence = SEEK_SET;
        if (fd < 0 || ::fcntl(fd, F_SETLK, &fl) != 0)
            ::_exit(1);
        char c = 'l';
        if (::write(held[1], &c, 1) != 1 || ::read(go[0], &c, 1) < 0)
            ::_exit(1);
        ::close(fd); // IN_CLOSE_WRITE, as when apt ends
        ::_exit(0);
    }
    char c;
    ASSERT_EQ(::read(held[0], &c, 1), 1);
    const int whileHeld = seen.count;
    EXPECT_TRUE(watcher.holdsBack());
    EXPECT_TRUE(SoftwareWatcher::isLocked(lock));
    ::close(go[1]);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    ASSERT_TRUE(seen.waitFor(whileHeld + 1));
    EXPECT_FALSE(watcher.holdsBack());
    ::close(go[0]);
    ::close(held[0]);
    ::close(held[1]);
    EXPECT_FALSE(SoftwareWatcher::isLocked(dpkg + "/missing"));
}

namespace
{
SockDiag::Socket sock(uint8_t family, const char* addr, uint16_t port, uint32_t inode)
{
    SockDiag::Socket s;
    s.family = family;
    s.localAddress = QByteArray(family == AF_INET ? 4 : 16, '\0');
    ::inet_pton(family, addr, s.localAddress.data());
    s.localPort = port;
    s.inode = inode;
    return s;
}
} // namespace

TEST(ListeningSocketWatcher, ComparesProtocolAddressAndPortOnly)
{
    std::vector<SockDiag::Socket> tcp4{sock(AF_INET, "0.0.0.0", 22, 100)};
    std::vector<SockDiag::Socket> udp6{sock(AF_INET6, "::", 53, 200)};
    bool fail = false;
    int asks = 0;
    ListeningSocketWatcher watcher(
        11, nullptr, [&](int family, int protocol, uint32_t) -> std::optional<std::vector<SockDiag::Socket>> {
            ++asks;
            if (fail) {
                errno = EPROTO;
                return std::nullopt;
            }
            if (protocol == IPPROTO_TCP && family == AF_INET)
                return tcp4;
            if (protocol == IPPROTO_UDP && family == AF_INET6)
                return udp6;
            return std::vector<SockDiag::Socket>{};
        });
    Recorder seen;
    seen.attach(watcher);
    ASSERT_TRUE(watcher.start());
    watcher.stop();
    EXPECT_EQ(asks, 4); // TCP and UDP, both families

    // Another process on the same port, a second socket on it (SO_REUSEPORT): no change.
    tcp4 = {sock(AF_INET, "0.0.0.0", 22, 999), sock(AF_INET, "0.0.0.0", 22, 1000)};
    watcher.poll();
    EXPECT_EQ(seen.count, 0);

    // The same port over UDP instead of TCP, another address: each a change.
    udp6 = {sock(AF_INET6, "::", 22, 200)};
    watcher.poll();
    EXPECT_EQ(seen.count, 1);
    EXPECT_EQ(seen.last, QStringLiteral("listening sockets changed"));
    tcp4 = {sock(AF_INET, "127.0.0.1", 22, 999)};
    watcher.poll();
    EXPECT_EQ(seen.count, 2);

    // A failed dump keeps the last set (no change either way) and is said once.
    ScratchPrefix prefix;
    fail = true;
    watcher.poll();
    watcher.poll();
    fail = false;
    watcher.poll();
    EXPECT_EQ(seen.count, 2);
    EXPECT_EQ(prefix.traceLog().count("Listening sockets cannot be read"), 1);
}

TEST(ListeningSocketWatcher, SeesALoopbackListenerAndABoundUdpSocketComeAndGo)
{
    ListeningSocketWatcher watcher(11);
    Recorder seen;
    seen.attach(watcher);
    if (!watcher.start())
        GTEST_SKIP() << "no sock_diag here";
    watcher.stop();
    // Other tests open and close listeners meanwhile: look for our change
    // by polling until it shows, never by counting exactly.
    int port = 0;
    const int listener = LoopbackSocket::listenOn(&port);
    ASSERT_GE(listener, 0);
    watcher.poll();
    EXPECT_GE(seen.count, 1);
    const int before = seen.count;
    ::close(listener);
    watcher.poll();
    EXPECT_GT(seen.count, before);

    const int udp = ::socket(AF_INET6, SOCK_DGRAM, 0);
    ASSERT_GE(udp, 0);
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_addr = in6addr_loopback;
    ASSERT_EQ(::bind(udp, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    const int beforeUdp = seen.count;
    watcher.poll();
    EXPECT_GT(seen.count, beforeUdp);
    ::close(udp);
}
