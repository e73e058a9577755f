#include "lh_timer.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include "core/handles.hpp"
#include "core/log.hpp"

using namespace vyt;

// Both words are 64 bits wide on every platform that the library is built for.
static_assert(sizeof(timespec::tv_sec) == 8 && sizeof(timespec::tv_nsec) == 8);
static_assert(sizeof(timeval::tv_sec) == 8 && sizeof(timeval::tv_usec) == 8);

namespace {

constexpr int64_t ms_per_s = 1000;
constexpr int64_t ns_per_ms = 1000000;

int64_t byte_reversed(int64_t word)
{
    return static_cast<int64_t>(__builtin_bswap64(static_cast<uint64_t>(word)));
}

} // namespace

struct timespec lh_timer_ms_to_timespec(int64_t ms)
{
    return {.tv_sec = ms / ms_per_s, .tv_nsec = ms % ms_per_s * ns_per_ms};
}

struct timespec lh_timer_s_to_timespec(int64_t s)
{
    return {.tv_sec = s, .tv_nsec = 0};
}

int lh_timer_fd_create(struct timespec period)
{
    unique_fd fd(timerfd_create(CLOCK_MONOTONIC, 0));
    if (IS_EQ(-1, fd.get()))
        return -1;
    const itimerspec spec = {.it_interval = period, .it_value = period};
    if (IS_NE(0, timerfd_settime(fd.get(), 0, &spec, nullptr))) {
        // Deliberate: stays open, for daemons that count on the numbers of later descriptors.
        (void)fd.release();
        return -1;
    }
    return fd.release(); // the caller closes it
}

int lh_timer_fd_handle(int fd, lh_timer_fd_cb cb, void *arg)
{
    uint64_t exp;
    if (IS_NE(sizeof(exp), read(fd, &exp, sizeof(exp))))
        return -1;
    return cb != nullptr ? cb(arg) : 0;
}

void lh_struct_timeval_bs(struct timeval *tv)
{
    if (PTR_IS_NULL(tv))
        return;
    tv->tv_sec = byte_reversed(tv->tv_sec);
    tv->tv_usec = byte_reversed(tv->tv_usec);
}

int lh_localtime_unix(uint32_t t, struct tm *result_tm)
{
    if (PTR_IS_NULL(result_tm))
        return -1;
    const time_t time = t;
    return localtime_r(&time, result_tm) != nullptr ? 0 : -1;
}
