/**
 * @file lh_timer.h
 * Periodic timer descriptors, and small conversions of time values.
 *
 * A timer descriptor becomes readable at every period, so it fits a poll loop like any other:
 *
 * @code
 * int fd = lh_timer_fd_create(lh_timer_ms_to_timespec(500));
 * ...                                       // poll says that fd is readable:
 * lh_timer_fd_handle(fd, on_tick, &daemon); // calls on_tick(&daemon)
 * ...
 * lh_close(&fd);
 * @endcode
 */
#ifndef LH_TIMER_H
#define LH_TIMER_H

#include <stdint.h>
#include <sys/time.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Called when a timer has fired, with the argument given to lh_timer_fd_handle(). */
typedef int (*lh_timer_fd_cb)(void *arg);

/**
 * Milliseconds as a `struct timespec`.
 *
 * @param ms milliseconds; may be negative.
 * @return whole seconds, and the rest in nanoseconds. Both are truncated towards zero and carry the
 *         sign of `ms`: -1500 gives -1 s and -500000000 ns.
 * @errno  kept.
 * @log    none.
 * @blocking no.
 * @threads any.
 */
struct timespec lh_timer_ms_to_timespec(int64_t ms);

/**
 * Seconds as a `struct timespec`.
 *
 * @param s seconds; may be negative.
 * @return the seconds, and 0 nanoseconds.
 * @errno  kept.
 * @log    none.
 * @blocking no.
 * @threads any.
 */
struct timespec lh_timer_s_to_timespec(int64_t s);

/**
 * Create a timer descriptor that fires every period from now on, on the monotonic clock.
 *
 * @param period both the time to the first expiry and the interval after it. A zero period gives a
 *               descriptor that never becomes readable. The seconds must not be negative and the
 *               nanoseconds 0 to 999999999.
 * @return the descriptor, blocking and without the close-on-exec flag; the caller closes it. -1 on
 *         failure.
 * @errno  of `timerfd_create` or `timerfd_settime`: EINVAL for a period out of range.
 * @log    `IS_EQ check failed: -1 (-1 == -1) !!!` when there is no descriptor to be had;
 *         `IS_NE check failed: 0 (0 != %ld) !!!` (what `timerfd_settime` returned) when the period
 *         is not accepted.
 * @blocking no.
 * @threads any.
 * @note Deliberate: when the period is not accepted, the new descriptor stays open and its number
 *       is lost. A caller that takes periods from outside checks them first.
 */
int lh_timer_fd_create(struct timespec period);

/**
 * Consume the expirations of a timer descriptor and call a callback once.
 *
 * @param fd  a timer descriptor; stays the caller's.
 * @param cb  what to call; null only consumes the expirations.
 * @param arg handed to `cb`; stays the caller's.
 * @return what `cb` returned; 0 without a `cb`; -1 when the expirations could not be read, and then
 *         `cb` was not called.
 * @errno  of `read` when that failed (EINTR when a signal handler interrupted the wait); kept when it
 *         gave fewer bytes; else as `cb` left it.
 * @log    `IS_NE check failed: sizeof(exp) (8 != %lu) !!!` (the number of bytes read; a failed read
 *         shows as 18446744073709551615).
 * @blocking until the timer fires, when it has not yet.
 * @threads any.
 * @note Several missed periods lead to one call. Their number is not told.
 */
int lh_timer_fd_handle(int fd, lh_timer_fd_cb cb, void *arg);

/**
 * Reverse the byte order of both words of a time, in place: for exchanging it with a peer of the
 * other byte order.
 *
 * @param tv the time (stays the caller's); null is logged.
 * @errno  kept.
 * @log    `PTR_IS_NULL: tv`.
 * @blocking no.
 * @threads any.
 */
void lh_struct_timeval_bs(struct timeval *tv);

/**
 * Local broken-down time of an unsigned 32-bit Unix time.
 *
 * @param t         seconds since 1970, up to the year 2106; never before 1970.
 * @param result_tm where the result goes (stays the caller's); null is logged.
 * @return 0; -1 when `result_tm` is null or the time cannot be converted (no line then).
 * @errno  of `localtime_r` when that failed.
 * @log    `PTR_IS_NULL: result_tm`.
 * @blocking reads the time zone file at the process's first conversion.
 * @threads any.
 * @note A change of `TZ` after that takes effect once the daemon calls `tzset`.
 */
int lh_localtime_unix(uint32_t t, struct tm *result_tm);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
