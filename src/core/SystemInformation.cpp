#include "core/SystemInformation.h"

#include "core/UniqueFd.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

bool SystemInformation::bootUniqueId(QString& id, const HostPaths& host)
{
    const QByteArray path = QFile::encodeName(host.proc(QStringLiteral("sys/kernel/random/boot_id")));
    UniqueFd fd;
    do {
        fd.reset(::open(path.constData(), O_RDONLY | O_CLOEXEC));
    } while (!fd && errno == EINTR);
    if (!fd)
        return false;

    char buf[36];
    ssize_t n;
    do {
        n = ::read(fd.get(), buf, sizeof buf);
    } while (n < 0 && errno == EINTR);
    fd.reset();

    if (n != static_cast<ssize_t>(sizeof buf))
        return false;
    const void* nul = std::memchr(buf, '\0', sizeof buf);
    const int len =
        nul ? static_cast<int>(static_cast<const char*>(nul) - buf) : static_cast<int>(sizeof buf);
    id = QString::fromUtf8(buf, len);
    return true;
}
