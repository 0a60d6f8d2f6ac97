#include "push/StoppableWait.h"
#include "core/HostPaths.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

// Without its eventfd (descriptors exhausted) a wait with no limit must still
// end on a stop instead of sleeping in poll() for ever.
TEST(StoppableWait, StopEndsAnUnlimitedWaitEvenWithoutItsEventfd)
{
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    const int lowestFree = ::fcntl(0, F_DUPFD_CLOEXEC, 0);
    ASSERT_GE(lowestFree, 0);
    ::close(lowestFree);
    rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(lowestFree);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
    StoppableWait wait;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);

    StoppableWait::Result result = StoppableWait::Ready;
    std::atomic<pid_t> tid{0};
    std::thread waiter([&] {
        tid = ::gettid();
        result = wait.waitFor(-1, POLLIN, -1);
    });
    // The stop must come while the waiter sits in poll(), not before.
    const bool inPoll = edrtest::waitUntil(
        [&] {
            return tid &&
                   HostPaths::readFile(QStringLiteral("/proc/self/task/%1/wchan").arg(tid)).contains("poll");
        },
        30000);
    wait.requestStop();
    waiter.join();
    EXPECT_TRUE(inPoll);
    EXPECT_EQ(result, StoppableWait::Stopped);
}
