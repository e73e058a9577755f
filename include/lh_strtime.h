/**
 * @file lh_strtime.h
 * The two textual forms of time: an uptime (`01,01:01:01`: days, hours, minutes, seconds) and a
 * calendar time (`2024-03-05 07:08:09`), which is also parsed.
 *
 * Nothing here keeps state.
 */
#ifndef LH_STRTIME_H
#define LH_STRTIME_H

#include <stddef.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * Write an uptime as days, hours, minutes and seconds: `%02d,%02d:%02d:%02d`.
 *
 * @param seconds the uptime in seconds.
 * @param buf     where the text goes; null is logged.
 * @param size    its size in bytes; 15 hold every uptime. 0 writes nothing.
 * @return 0, also when the text was cut to fit; -1 for a null `buf` or a negative `size`.
 * @errno  as the C library leaves it; kept for a null argument.
 * @log    `PTR_IS_NULL: buf`; nothing for a negative `size`.
 * @blocking no.
 * @threads any.
 */
int lh_str_form_uptime(unsigned int seconds, char *buf, int size);

/**
 * Write a calendar time as `%F %H:%M:%S`.
 *
 * @param str      where the text goes; null is logged.
 * @param size     its size in bytes; 20 hold every year of four digits.
 * @param timeinfo the time; null is logged.
 * @return 0, or -1 for a null argument.
 * @errno  as the C library leaves it; kept for a null argument.
 * @log    `PTR_IS_NULL: str` or `PTR_IS_NULL: timeinfo`.
 * @blocking no.
 * @threads any.
 * @note Deliberate: a buffer that is too small gives 0 too, and what it then holds is undefined.
 */
int lh_strtime(char *str, size_t size, const struct tm *timeinfo);

/**
 * Read a calendar time of the form `%F %H:%M:%S`.
 *
 * @param str      the text; null is logged.
 * @param timeinfo where the time goes; null is logged. The day of the week and of the year are
 *                 worked out; `tm_isdst` keeps its value.
 * @return 0, or -1 for a null argument.
 * @errno  as the C library leaves it; kept for a null argument.
 * @log    `PTR_IS_NULL: str` or `PTR_IS_NULL: timeinfo`.
 * @blocking no.
 * @threads any.
 * @note Deliberate: a text that is no time gives 0 too, and the fields before the first mismatch have
 *       been set then. Whoever must know fills `timeinfo` with impossible values before the call and
 *       looks at `tm_sec`, the last one to be set.
 */
int lh_strptime(const char *str, struct tm *timeinfo);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
