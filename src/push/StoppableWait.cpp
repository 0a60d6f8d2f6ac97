#include "push/StoppableWait.h"

#include "core/CLogger.h"

#include <cerrno>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

namespace
{
// Without a wake-up descriptor every wait is cut into slices this long, so a
// stop is still seen within one slice.
constexpr int kSliceWithoutWakeFdMs = 100;
} // namespace

StoppableWait::StoppableWait() : m_wakeFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (!m_wakeFd)
        EDR_LOG->Error(Q_FUNC_INFO, errno, "eventfd Failed! Stops are noticed within %d ms",
                       kSliceWithoutWakeFdMs);
}

StoppableWait::~StoppableWait() = default;

void StoppableWait::reset()
{
    m_stop = false;
    uint64_t drained;
    while (m_wakeFd && ::read(m_wakeFd.get(), &drained, sizeof drained) > 0) {
    }
}

void StoppableWait::requestStop()
{
    m_stop = true;
    const uint64_t one = 1;
    if (m_wakeFd) {
        ssize_t rc = ::write(m_wakeFd.get(), &one, sizeof one);
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
        pollfd fds[2] = {{m_wakeFd.get(), POLLIN, 0}, {fd, events, 0}};
        const int count = fd >= 0 ? 2 : 1;
        int wait = -1;
        if (timeoutMs >= 0) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            wait = left > 0 ? static_cast<int>(left) : 0;
        }
        const bool sliced = !m_wakeFd && (wait < 0 || wait > kSliceWithoutWakeFdMs);
        if (sliced)
            wait = kSliceWithoutWakeFdMs;
        const int n = ::poll(fds, static_cast<nfds_t>(count), wait);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return Failed;
        }
        if (m_stop || (fds[0].revents & POLLIN))
            return Stopped;
        if (n == 0) {
            if (sliced)
                continue;
            return Timeout;
        }
        if (count == 2 && fds[1].revents)
            return Ready;
    }
}

bool StoppableWait::sleepFor(int ms)
{
    const Result r = waitFor(-1, 0, ms);
    if (r != Failed)
        return r != Stopped;
    // poll itself fails: still pause, so a caller's retry loop cannot spin.
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(std::max(ms, 0));
    while (!m_stop && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(kSliceWithoutWakeFdMs));
    return !m_stop;
}
