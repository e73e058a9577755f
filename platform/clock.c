/* Stand-in for the board's clock library: the kernel's monotonic clock. */
#include <time.h>

int clockgettime(struct timespec *now)
{
    return clock_gettime(CLOCK_MONOTONIC, now);
}

int clocktimerexpired(const struct timespec *end, const struct timespec *now)
{
    if (now->tv_sec != end->tv_sec)
        return now->tv_sec > end->tv_sec;
    return now->tv_nsec >= end->tv_nsec;
}
