#pragma once

#include "core/UniqueFd.h"

#include <atomic>

// Lets a socket thread block in poll() and still be stopped from outside at
// once: requestStop() sets a flag and wakes every wait through an eventfd.
class StoppableWait
{
public:
    enum Result { Ready, Timeout, Stopped, Failed };

    StoppableWait();
    ~StoppableWait();
    StoppableWait(const StoppableWait&) = delete;
    StoppableWait& operator=(const StoppableWait&) = delete;

    // Before start(), by the starting thread: a stop requested between start()
    // and the first wait must not be cleared by the new run.
    void reset();
    void requestStop(); // any thread
    bool stopRequested() const { return m_stop.load(); }

    // Waits until fd has the events (POLLIN or POLLOUT), the time runs out
    // (timeoutMs < 0: no limit) or a stop is requested.
    Result waitFor(int fd, short events, int timeoutMs);
    // A pause that ends early on a stop; false when stopped. It pauses even
    // when poll() fails.
    bool sleepFor(int ms);

private:
    UniqueFd m_wakeFd;
    std::atomic<bool> m_stop{false};
};
