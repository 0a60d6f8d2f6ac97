#include "push/PortHolder.h"

#include "core/SockDiag.h"
#include "push/ListenerPeer.h"

#include <QFile>
#include <QStringList>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <netinet/in.h>
#include <unistd.h>

namespace
{
// Sockets bound to a port but not (yet) listening; kernels before 6.5 ignore
// the bit and report listeners only.
constexpr uint32_t kBoundInactiveBit = 1u << 13;
// Named in the log line at most; the rest are counted.
constexpr int kNamedHolders = 3;

bool allDigits(const char* s)
{
    if (!*s)
        return false;
    for (; *s; ++s)
        if (*s < '0' || *s > '9')
            return false;
    return true;
}

struct DirCloser {
    void operator()(DIR* d) const { ::closedir(d); }
};
using Dir = std::unique_ptr<DIR, DirCloser>;
} // namespace

QList<PortHolder::Process> PortHolder::processesWithSocket(uint32_t inode, int maxLinks) const
{
    QList<Process> out;
    const QByteArray wanted = "socket:[" + QByteArray::number(inode) + ']';
    Dir proc(::opendir(QFile::encodeName(m_paths.procRoot()).constData()));
    if (!proc)
        return out;
    int links = 0;
    while (const dirent* e = ::readdir(proc.get())) {
        if (!allDigits(e->d_name))
            continue;
        const QString pid = QString::fromLatin1(e->d_name);
        Dir fds(::opendir(QFile::encodeName(m_paths.proc(pid + QStringLiteral("/fd"))).constData()));
        if (!fds)
            continue; // gone meanwhile, or not ours to read
        bool holds = false;
        while (const dirent* f = ::readdir(fds.get())) {
            if (f->d_name[0] == '.')
                continue;
            if (++links > maxLinks)
                return {};
            char target[64];
            const ssize_t n = ::readlinkat(::dirfd(fds.get()), f->d_name, target, sizeof target);
            if (n == wanted.size() && std::memcmp(target, wanted.constData(), static_cast<size_t>(n)) == 0) {
                holds = true;
                break;
            }
        }
        if (holds)
            out << Process{pid.toInt(),
                           QString::fromUtf8(
                               HostPaths::readFile(m_paths.proc(pid + QStringLiteral("/comm")), nullptr, 256))
                               .trimmed()};
    }
    std::sort(out.begin(), out.end(), [](const Process& a, const Process& b) { return a.pid < b.pid; });
    return out;
}

QString PortHolder::describeTcpPort(uint16_t port) const
{
    const uint32_t states = SockDiag::stateBit(SockDiag::Listen) | kBoundInactiveBit;
    for (const int family : {AF_INET, AF_INET6}) {
        const auto sockets = SockDiag::dump(family, IPPROTO_TCP, states);
        if (!sockets)
            continue;
        for (const SockDiag::Socket& s : *sockets) {
            if (s.localPort != port)
                continue;
            const QString user = ListenerPeer::userName(s.uid);
            const QList<Process> holders = s.inode ? processesWithSocket(s.inode) : QList<Process>();
            if (holders.isEmpty())
                return QStringLiteral("an unknown process of user %1").arg(user);
            QStringList named;
            for (int i = 0; i < holders.size() && i < kNamedHolders; ++i)
                named << QStringLiteral("pid %1 (%2)").arg(QString::number(holders[i].pid), holders[i].name);
            if (holders.size() > kNamedHolders)
                named << QStringLiteral("%1 more").arg(holders.size() - kNamedHolders);
            return named.join(QStringLiteral(", ")) + QStringLiteral(" of user ") + user;
        }
    }
    return QStringLiteral("an unknown process");
}
