#include "core/StopRequest.h"

#include <atomic>
#include <poll.h>

namespace
{
std::atomic<int> g_fd{-1};
}

void StopRequest::setSignalFd(int fd)
{
    g_fd.store(fd);
}

bool StopRequest::pending()
{
    const int fd = g_fd.load();
    if (fd < 0)
        return false;
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 0) > 0 && (p.revents & POLLIN);
}
