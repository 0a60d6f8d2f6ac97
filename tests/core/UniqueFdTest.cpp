#include "core/UniqueFd.h"

#include <gtest/gtest.h>

#include <fcntl.h>

namespace
{
bool isOpen(int fd)
{
    return ::fcntl(fd, F_GETFD) != -1;
}
} // namespace

TEST(UniqueFdTest, ClosesOnceThroughMovesAndKeepsWhatWasReleased)
{
    const int raw = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(raw, 0);
    {
        UniqueFd first(raw);
        UniqueFd second(std::move(first));
        EXPECT_FALSE(first.valid());
        UniqueFd third;
        third = std::move(second);
        EXPECT_EQ(third.get(), raw);
        EXPECT_TRUE(isOpen(raw));
    }
    EXPECT_FALSE(isOpen(raw));

    const int kept = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(kept, 0);
    {
        UniqueFd owner(kept);
        EXPECT_EQ(owner.release(), kept);
    }
    EXPECT_TRUE(isOpen(kept));

    // reset() closes the old descriptor but leaves errno as the caller set it.
    UniqueFd owner(kept);
    errno = ENOENT;
    owner.reset();
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(isOpen(kept));
}
