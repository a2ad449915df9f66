// The descriptor that closes itself.
#include "base/unique_fd.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>

namespace {

using ruma::UniqueFd;

UniqueFd open_null() { return UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC)); }

bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

TEST(UniqueFdTest, ClosesItsDescriptorAtItsEnd) {
    int number = -1;
    {
        const UniqueFd fd = open_null();
        number = fd.get();
        ASSERT_TRUE(is_open(number));
    }
    EXPECT_FALSE(is_open(number));
}

TEST(UniqueFdTest, KeepsErrnoAtItsEnd) {
    errno = 0;
    {
        const UniqueFd never_opened(1 << 20); // closing it is an error
        errno = ENOSPC;
    }
    EXPECT_EQ(errno, ENOSPC);
}

TEST(UniqueFdTest, AssigningClosesTheDescriptorThatItHad) {
    UniqueFd fd = open_null();
    const int former = fd.get();
    UniqueFd other = open_null();
    const int number = other.get();
    fd = std::move(other);
    EXPECT_EQ(fd.get(), number);
    EXPECT_TRUE(is_open(number));
    EXPECT_FALSE(is_open(former));
}

TEST(UniqueFdTest, HandsItsDescriptorOver) {
    UniqueFd from = open_null();
    const int number = from.get();
    const UniqueFd to(std::move(from));
    EXPECT_EQ(to.get(), number);
    EXPECT_TRUE(is_open(number));
}

TEST(UniqueFdTest, ClosesOnceWhenAsked) {
    UniqueFd fd = open_null();
    EXPECT_EQ(fd.close(), 0);
    EXPECT_FALSE(fd);
    EXPECT_EQ(fd.close(), 0);
}

TEST(UniqueFdTest, TellsThatClosingFailed) {
    UniqueFd fd(1 << 20);
    EXPECT_EQ(fd.close(), -1);
}

} // namespace
