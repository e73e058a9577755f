#include "lh_timer.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "lh_close.h"
#include "support/faults.hpp"
#include "support/log_capture.hpp"
#include "support/process.hpp"

using namespace vyt::test;

namespace {

int calls;

// Counts its calls and answers what the argument points at.
int answer(void *arg)
{
    calls++;
    return *static_cast<int *>(arg);
}

bool is_readable(int fd, int timeout = 0)
{
    pollfd polled = {.fd = fd, .events = POLLIN, .revents = 0};
    return poll(&polled, 1, timeout) == 1;
}

// Stands in for read and keeps the count of expirations that the library saw.
uint64_t expirations;

ssize_t observed_read(int fd, void *data, size_t size)
{
    const ssize_t result = read(fd, data, size);
    if (result == sizeof(expirations))
        memcpy(&expirations, data, sizeof(expirations));
    return result;
}

void wait_for_clock(const timespec &end)
{
    ASSERT_EQ(clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr), 0);
}

} // namespace

class Timer : public LogTest {
  protected:
    Timer() { calls = 0; }
};

TEST_F(Timer, MillisecondsAreSplitWithTheirSign)
{
    const struct {
        int64_t ms;
        int64_t seconds, nanoseconds;
    } cases[] = {
        {0, 0, 0},
        {1, 0, 1000000},
        {999, 0, 999000000},
        {1000, 1, 0},
        {1500, 1, 500000000},
        {-1, 0, -1000000},
        {-999, 0, -999000000},
        {-1000, -1, 0},
        {-1500, -1, -500000000},
        {INT64_MAX, 9223372036854775, 807000000},
        {INT64_MIN, -9223372036854775, -808000000},
    };
    for (const auto &c : cases) {
        const timespec result = lh_timer_ms_to_timespec(c.ms);
        EXPECT_EQ(result.tv_sec, c.seconds) << c.ms;
        EXPECT_EQ(result.tv_nsec, c.nanoseconds) << c.ms;
    }
}

TEST_F(Timer, SecondsAreTakenAsTheyAre)
{
    for (const int64_t s : {int64_t{0}, int64_t{1}, int64_t{-1}, INT64_MAX, INT64_MIN}) {
        const timespec result = lh_timer_s_to_timespec(s);
        EXPECT_EQ(result.tv_sec, s);
        EXPECT_EQ(result.tv_nsec, 0);
    }
}

TEST_F(Timer, FirstExpiryAndIntervalAreThePeriod)
{
    int fd = lh_timer_fd_create({.tv_sec = 3000, .tv_nsec = 250000000});
    ASSERT_GE(fd, 0);
    itimerspec spec;
    ASSERT_EQ(timerfd_gettime(fd, &spec), 0);
    EXPECT_EQ(spec.it_interval.tv_sec, 3000);
    EXPECT_EQ(spec.it_interval.tv_nsec, 250000000);
    EXPECT_GE(spec.it_value.tv_sec, 2000);
    EXPECT_LE(spec.it_value.tv_sec, 3000);
    EXPECT_EQ(lh_close(&fd), 0);
}

TEST_F(Timer, IsBlockingInheritedAndMonotonic)
{
    int fd = lh_timer_fd_create(lh_timer_s_to_timespec(1000));
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    const std::string info = read_file("/proc/self/fdinfo/" + std::to_string(fd));
    EXPECT_NE(info.find("clockid: " + std::to_string(CLOCK_MONOTONIC) + "\n"), std::string::npos)
        << info;
    // Relative time: an absolute one would show its flag.
    EXPECT_NE(info.find("settime flags: 00\n"), std::string::npos) << info;
    EXPECT_EQ(lh_close(&fd), 0);
}

TEST_F(Timer, FiresAgainAndAgain)
{
    int fd = lh_timer_fd_create(lh_timer_ms_to_timespec(5));
    ASSERT_GE(fd, 0);
    int result = 0;
    for (int i = 1; i <= 3; i++) {
        ASSERT_TRUE(is_readable(fd, 30000));
        EXPECT_EQ(lh_timer_fd_handle(fd, answer, &result), 0);
        EXPECT_EQ(calls, i);
    }
    EXPECT_EQ(lh_close(&fd), 0);
}

TEST_F(Timer, AZeroPeriodNeverFires)
{
    int fd = lh_timer_fd_create(lh_timer_s_to_timespec(0));
    ASSERT_GE(fd, 0);
    itimerspec spec;
    ASSERT_EQ(timerfd_gettime(fd, &spec), 0);
    EXPECT_EQ(spec.it_value.tv_sec, 0);
    EXPECT_EQ(spec.it_value.tv_nsec, 0);
    EXPECT_FALSE(is_readable(fd, 20));
    EXPECT_EQ(lh_close(&fd), 0);
}

TEST_F(Timer, WithoutADescriptorThereIsNoTimer)
{
    Faults faults;
    const auto before = open_descriptors();
    faults.fail("timerfd_create", EMFILE);
    EXPECT_EQ(lh_timer_fd_create(lh_timer_s_to_timespec(1)), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_LINES("lh_timer_fd_create: IS_EQ check failed: -1 (-1 == -1) !!!");
    EXPECT_EQ(faults.calls("timerfd_settime"), 0u);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Timer, ARefusedPeriodLeavesTheDescriptorOpen)
{
    const timespec refused[] = {{.tv_sec = 0, .tv_nsec = 1000000000},
                                {.tv_sec = 1, .tv_nsec = -1},
                                {.tv_sec = -1, .tv_nsec = 0}};
    for (const timespec &period : refused) {
        const auto before = open_descriptors();
        EXPECT_EQ(lh_timer_fd_create(period), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_LINES("lh_timer_fd_create: IS_NE check failed: 0 (0 != -1) !!!");
        const auto after = open_descriptors();
        EXPECT_EQ(after.size(), before.size() + 1);
    }
}

TEST_F(Timer, AFailingArmingIsReported)
{
    Faults faults;
    faults.fail("timerfd_settime", ECANCELED);
    EXPECT_EQ(lh_timer_fd_create(lh_timer_s_to_timespec(1)), -1);
    EXPECT_EQ(errno, ECANCELED);
    EXPECT_EQ(faults.calls("close"), 0u);
    EXPECT_LINES("lh_timer_fd_create: IS_NE check failed: 0 (0 != -1) !!!");
}

TEST_F(Timer, MissedPeriodsLeadToOneCall)
{
    Faults faults;
    faults.replace("read", reinterpret_cast<void *>(observed_read));
    timespec end;
    int fd = lh_timer_fd_create(lh_timer_ms_to_timespec(100));
    clock_gettime(CLOCK_MONOTONIC, &end);
    ASSERT_GE(fd, 0);
    end.tv_nsec += 350000000;
    if (end.tv_nsec >= 1000000000) {
        end.tv_sec++;
        end.tv_nsec -= 1000000000;
    }
    wait_for_clock(end);
    int result = 0;
    EXPECT_EQ(lh_timer_fd_handle(fd, answer, &result), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_GE(expirations, 3u); // a slow machine may have missed more
    EXPECT_EQ(lh_close(&fd), 0);
}

TEST_F(Timer, HandlingConsumesTheWholeCount)
{
    const int fd = eventfd(3, 0);
    ASSERT_GE(fd, 0);
    int result = 0;
    EXPECT_EQ(lh_timer_fd_handle(fd, answer, &result), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(is_readable(fd));
    close(fd);
}

TEST_F(Timer, HandlingWaitsForATimerThatHasNotFired)
{
    int fd = lh_timer_fd_create(lh_timer_ms_to_timespec(30));
    ASSERT_GE(fd, 0);
    int result = 0;
    EXPECT_EQ(lh_timer_fd_handle(fd, answer, &result), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(lh_close(&fd), 0);
}

TEST_F(Timer, TheCallbacksResultIsTheResult)
{
    for (int result : {0, 1, -1, 77, INT_MAX, INT_MIN}) {
        const int fd = eventfd(1, 0);
        EXPECT_EQ(lh_timer_fd_handle(fd, answer, &result), result);
        close(fd);
    }
    EXPECT_EQ(calls, 6);
}

TEST_F(Timer, WithoutACallbackTheExpirationIsOnlyConsumed)
{
    const int fd = eventfd(1, 0);
    EXPECT_EQ(lh_timer_fd_handle(fd, nullptr, nullptr), 0);
    EXPECT_FALSE(is_readable(fd));
    close(fd);
}

TEST_F(Timer, AShortReadIsLoggedAndTheCallbackLeftOut)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    int result = 5;
    ASSERT_EQ(write(ends[1], "four", 4), 4);
    EXPECT_EQ(lh_timer_fd_handle(ends[0], answer, &result), -1);
    EXPECT_LINES("lh_timer_fd_handle: IS_NE check failed: sizeof(exp) (8 != 4) !!!");
    close(ends[1]);
    EXPECT_EQ(lh_timer_fd_handle(ends[0], answer, &result), -1);
    EXPECT_LINES("lh_timer_fd_handle: IS_NE check failed: sizeof(exp) (8 != 0) !!!");
    close(ends[0]);
    EXPECT_EQ(calls, 0);
}

TEST_F(Timer, AFailedReadShowsAsAnUnsignedCount)
{
    int result = 5;
    EXPECT_EQ(lh_timer_fd_handle(-1, answer, &result), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_LINES("lh_timer_fd_handle: IS_NE check failed: sizeof(exp) "
                 "(8 != 18446744073709551615) !!!");
    Faults faults;
    faults.fail("read", EINTR);
    const int fd = eventfd(1, 0);
    EXPECT_EQ(lh_timer_fd_handle(fd, answer, &result), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_LINES("lh_timer_fd_handle: IS_NE check failed: sizeof(exp) "
                 "(8 != 18446744073709551615) !!!");
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(lh_timer_fd_handle(fd, answer, &result), 5);
    close(fd);
}

TEST_F(Timer, BothWordsOfATimevalAreReversed)
{
    timeval tv = {.tv_sec = 0x0102030405060708, .tv_usec = 0x00000000000f4240};
    lh_struct_timeval_bs(&tv);
    EXPECT_EQ(tv.tv_sec, 0x0807060504030201);
    EXPECT_EQ(tv.tv_usec, 0x40420f0000000000);
    lh_struct_timeval_bs(&tv);
    EXPECT_EQ(tv.tv_sec, 0x0102030405060708);
    EXPECT_EQ(tv.tv_usec, 0x00000000000f4240);
    tv = {.tv_sec = -2, .tv_usec = 0x80};
    lh_struct_timeval_bs(&tv);
    EXPECT_EQ(static_cast<uint64_t>(tv.tv_sec), 0xfeffffffffffffff);
    EXPECT_EQ(static_cast<uint64_t>(tv.tv_usec), 0x8000000000000000);
}

TEST_F(Timer, ANullTimevalIsLogged)
{
    lh_struct_timeval_bs(nullptr);
    EXPECT_LINES("lh_struct_timeval_bs: PTR_IS_NULL: tv");
}

class LocalTime : public LogTest {
  protected:
    static void use_zone(const char *zone)
    {
        setenv("TZ", zone, 1);
        tzset();
    }
};

TEST_F(LocalTime, TheWholeUnsignedRangeConverts)
{
    use_zone("UTC0");
    tm result = {};
    EXPECT_EQ(lh_localtime_unix(0, &result), 0);
    EXPECT_EQ(result.tm_year, 70);
    EXPECT_EQ(result.tm_mon, 0);
    EXPECT_EQ(result.tm_mday, 1);
    EXPECT_EQ(result.tm_hour, 0);
    EXPECT_EQ(lh_localtime_unix(2147483648u, &result), 0);
    EXPECT_EQ(result.tm_year, 138);
    EXPECT_EQ(lh_localtime_unix(4294967295u, &result), 0);
    EXPECT_EQ(result.tm_year, 206);
    EXPECT_EQ(result.tm_mon, 1);
    EXPECT_EQ(result.tm_mday, 7);
    EXPECT_EQ(result.tm_hour, 6);
    EXPECT_EQ(result.tm_min, 28);
    EXPECT_EQ(result.tm_sec, 15);
    EXPECT_EQ(result.tm_wday, 0);
    EXPECT_EQ(result.tm_yday, 37);
}

TEST_F(LocalTime, IsTheTimeOfTheZone)
{
    use_zone("EST5");
    tm result = {};
    EXPECT_EQ(lh_localtime_unix(0, &result), 0);
    EXPECT_EQ(result.tm_year, 69);
    EXPECT_EQ(result.tm_mday, 31);
    EXPECT_EQ(result.tm_hour, 19);
    EXPECT_EQ(result.tm_gmtoff, -5 * 3600);
}

TEST_F(LocalTime, ANullResultIsLogged)
{
    EXPECT_EQ(lh_localtime_unix(0, nullptr), -1);
    EXPECT_LINES("lh_localtime_unix: PTR_IS_NULL: result_tm");
}

TEST_F(LocalTime, AFailedConversionGivesNoLine)
{
    Faults faults;
    faults.fail("localtime_r", EOVERFLOW);
    tm result = {};
    EXPECT_EQ(lh_localtime_unix(0, &result), -1);
    EXPECT_EQ(errno, EOVERFLOW);
    EXPECT_NO_LINES();
    EXPECT_EQ(lh_localtime_unix(0, &result), 0);
}
