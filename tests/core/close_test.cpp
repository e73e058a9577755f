#include "lh_close.h"

#include <cerrno>
#include <fcntl.h>

#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"

using namespace vyt::test;

class Close : public LogTest {};

TEST_F(Close, ANullPointerIsLogged)
{
    EXPECT_EQ(lh_close(nullptr), -1);
    EXPECT_LINES("lh_close: PTR_IS_NULL: fd");
}

TEST_F(Close, ClosesAndMarksAsClosed)
{
    const auto before = open_descriptors();
    int fd = open("/dev/null", O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(lh_close(&fd), 0);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Close, ClosingTwiceIsAnError)
{
    int fd = open("/dev/null", O_RDONLY);
    ASSERT_EQ(lh_close(&fd), 0);
    EXPECT_EQ(lh_close(&fd), -1);
    EXPECT_EQ(fd, -1);
    EXPECT_LINES("lh_close: IS_EQ check failed: -1 (-1 == -1) !!!");
}

TEST_F(Close, AFailingCloseLeavesTheDescriptorAndErrno)
{
    int fd = 4096;
    errno = 0;
    EXPECT_EQ(lh_close(&fd), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(fd, 4096);
    EXPECT_LINES("lh_close: close(*fd) failed");
}

TEST_F(Close, OtherNegativeNumbersGoToClose)
{
    Faults faults;
    int fd = -2;
    EXPECT_EQ(lh_close(&fd), -1);
    EXPECT_EQ(fd, -2);
    EXPECT_EQ(faults.calls("close"), 1u);
    EXPECT_LINES("lh_close: close(*fd) failed");
}

TEST_F(Close, AFaultyCloseIsReported)
{
    Faults faults;
    int fd = open("/dev/null", O_RDONLY);
    faults.fail("close", EIO);
    EXPECT_EQ(lh_close(&fd), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_LINES("lh_close: close(*fd) failed");
    EXPECT_EQ(lh_close(&fd), 0);
}
