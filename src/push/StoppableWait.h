#pragma once

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

    void reset();       // before a new run: clears the flag and drains the wake-up
    void requestStop(); // any thread
    bool stopRequested() const { return m_stop.load(); }

    // Waits until fd has the events (POLLIN or POLLOUT), the time runs out
    // (timeoutMs < 0: no limit) or a stop is requested.
    Result waitFor(int fd, short events, int timeoutMs);
    // A pause that ends early on a stop; false when stopped.
    bool sleepFor(int ms);

private:
    int m_wakeFd = -1;
    std::atomic<bool> m_stop{false};
};
