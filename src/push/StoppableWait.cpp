#include "push/StoppableWait.h"

#include <cerrno>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>

StoppableWait::StoppableWait() : m_wakeFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

StoppableWait::~StoppableWait()
{
    if (m_wakeFd >= 0)
        ::close(m_wakeFd);
}

void StoppableWait::reset()
{
    m_stop = false;
    uint64_t drained;
    while (m_wakeFd >= 0 && ::read(m_wakeFd, &drained, sizeof drained) > 0) {
    }
}

void StoppableWait::requestStop()
{
    m_stop = true;
    const uint64_t one = 1;
    if (m_wakeFd >= 0) {
        ssize_t rc = ::write(m_wakeFd, &one, sizeof one);
        (void)rc;
    }
}

StoppableWait::Result StoppableWait::waitFor(int fd, short events, int timeoutMs)
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
    for (;;) {
        if (m_stop)
            return Stopped;
        pollfd fds[2] = {{m_wakeFd, POLLIN, 0}, {fd, events, 0}};
        const int count = fd >= 0 ? 2 : 1;
        int wait = -1;
        if (timeoutMs >= 0) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            wait = left > 0 ? static_cast<int>(left) : 0;
        }
        const int n = ::poll(fds, static_cast<nfds_t>(count), wait);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return Failed;
        }
        if (m_stop || (fds[0].revents & POLLIN))
            return Stopped;
        if (n == 0)
            return Timeout;
        if (count == 2 && fds[1].revents)
            return Ready;
    }
}

bool StoppableWait::sleepFor(int ms)
{
    return waitFor(-1, 0, ms) != Stopped;
}
