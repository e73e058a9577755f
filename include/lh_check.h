/**
 * @file lh_check.h
 * The check family: fail-if checks that log their own failure.
 *
 * Each check is an expression that is true when its condition HOLDS, and then has written one line
 * to the system log at LOG_ERR. So a failing check is one line with the failure value in sight:
 *
 * @code
 * int port_set(struct port *port, int number)
 * {
 *     if (PTR_IS_NULL(port))
 *         return -1;
 *     if (IS_LT(number, 0))
 *         return -1;
 *     ...
 * @endcode
 *
 * The line starts with the process's name and pid, the function and the source line:
 *
 *     <mydaemon(1234):port_set:5> IS_LT check failed: number (-5 < 0) !!!
 *
 * | check                     | fires when               | message                                                       |
 * |---------------------------|--------------------------|---------------------------------------------------------------|
 * | PTR_IS_NULL(p)            | `p` is null              | `PTR_IS_NULL: p`                                              |
 * | PTR_NOT_NULL(p)           | `p` is not null          | `PTR_NOT_NULL: p`                                             |
 * | IS_EQ(a, b)               | `a == b`                 | `IS_EQ check failed: a (1 == 1) !!!`                          |
 * | IS_NE(a, b)               | `a != b`                 | `IS_NE check failed: a (1 != 2) !!!`                          |
 * | IS_LT(a, b)               | `a < b`                  | `IS_LT check failed: a (1 < 2) !!!`                           |
 * | IS_MT(a, b)               | `a > b`                  | `IS_MT check failed: a (2 > 1) !!!`                           |
 * | IS_ME(a, b)               | `a >= b`                 | `IS_ME check failed: a (2 >= 2) !!!`                          |
 * | OUT_OF_RANGE(v, min, max) | `v < min` or `v > max`   | `OUT_OF_RANGE check failed: v is really out of range (1 7 4) !!!` (min, v, max) |
 * | IS_NOT(c)                 | `c` is false             | `IS_NOT: c`                                                   |
 * | CALL_FAILED(call)         | `call` is not 0          | `call failed`                                                 |
 *
 * The words shown for `a`, `p`, `v`, `c` and `call` are the source text of the operand; the numbers
 * are its value and that of the second operand. IS_EQ, IS_NE, IS_LT and IS_MT compare and print as
 * signed 64-bit numbers when the first operand has a signed type, else as unsigned ones (a type
 * narrower than int counts as int, as in every C expression); IS_ME and OUT_OF_RANGE are always
 * unsigned. Operands are evaluated once. The condition of IS_NOT becomes part of the line's format:
 * it must not hold a percent sign.
 *
 * `errno` is kept: after a check it is what it was before, whether or not a line was written.
 * A check that does not fire costs the comparison. Checks may fire on any thread (call
 * lh_process_self_name_get() once before starting threads).
 */
#ifndef LH_CHECK_H
#define LH_CHECK_H

#include <errno.h>
#include <stddef.h>
#include <syslog.h>

#include "lh_process.h"

/* What every error line starts with: process name, pid, function, source line. */
#define LH_CHECK_PREFIX_ "<%s(%lu):%s:%d> "

/**
 * Fires when a pointer is null.
 *
 * @param p the pointer.
 * @return 1 when it fired, else 0.
 * @errno  kept.
 * @log    `PTR_IS_NULL: %s` (the text of `p`).
 * @blocking no.
 * @threads any.
 */
#define PTR_IS_NULL(p)                                                                             \
    lh_check_((p) == NULL, LH_CHECK_PREFIX_ "PTR_IS_NULL: %s", __func__, __LINE__, #p, 0, 0, 0)

/**
 * Fires when a pointer is not null.
 *
 * @param p the pointer.
 * @return 1 when it fired, else 0.
 * @errno  kept.
 * @log    `PTR_NOT_NULL: %s` (the text of `p`).
 * @blocking no.
 * @threads any.
 */
#define PTR_NOT_NULL(p)                                                                            \
    lh_check_((p) != NULL, LH_CHECK_PREFIX_ "PTR_NOT_NULL: %s", __func__, __LINE__, #p, 0, 0, 0)

/**
 * Fires when two numbers are equal.
 *
 * @param a the number that the line names; its type decides whether both are taken as signed.
 * @param b the number to compare it with.
 * @return 1 when it fired, else 0.
 * @errno  kept.
 * @log    `IS_EQ check failed: %s (%ld == %ld) !!!` or `IS_EQ check failed: %s (%lu == %lu) !!!`
 *         (the text of `a`, both values).
 * @blocking no.
 * @threads any.
 */
#define IS_EQ(a, b) LH_CHECK_PAIR_(EQ, ==, a, #a, b)

/**
 * Fires when two numbers are not equal.
 *
 * @param a the number that the line names; its type decides whether both are taken as signed.
 * @param b the number to compare it with.
 * @return 1 when it fired, else 0.
 * @errno  kept.
 * @log    `IS_NE check failed: %s (%ld != %ld) !!!` or `IS_NE check failed: %s (%lu != %lu) !!!`
 *         (the text of `a`, both values).
 * @blocking no.
 * @threads any.
 */
#define IS_NE(a, b) LH_CHECK_PAIR_(NE, !=, a, #a, b)

/**
 * Fires when the first number is below the second.
 *
 * @param a the number that the line names; its type decides whether both are taken as signed.
 * @param b the number to compare it with.
 * @return 1 when it fired, else 0.
 * @errno  kept.
 * @log    `IS_LT check failed: %s (%ld < %ld) !!!` or `IS_LT check failed: %s (%lu < %lu) !!!`
 *         (the text of `a`, both values).
 * @blocking no.
 * @threads any.
 */
#define IS_LT(a, b) LH_CHECK_PAIR_(LT, <, a, #a, b)

/**
 * Fires when the first number is above the second.
 *
 * @param a the number that the line names; its type decides whether both are taken as signed.
 * @param b the number to compare it with.
 * @return 1 when it fired, else 0.
 * @errno  kept.
 * @log    `IS_MT check failed: %s (%ld > %ld) !!!` or `IS_MT check failed: %s (%lu > %lu) !!!`
 *         (the text of `a`, both values).
 * @blocking no.
 * @threads any.
 */
#define IS_MT(a, b) LH_CHECK_PAIR_(MT, >, a, #a, b)

/**
 * Fires when the first number is not below the second.
 *
 * @param a the number that the line names, taken as unsigned.
 * @param b the number to compare it with, unsigned too.
 * @return 1 when it fired, else 0.
 * @errno  kept.
 * @log    `IS_ME check failed: %s (%lu >= %lu) !!!` (the text of `a`, both values).
 * @blocking no.
 * @threads any.
 */
#define IS_ME(a, b)                                                                                \
    lh_check_is_me_((unsigned long)(a), (unsigned long)(b),                                        \
                    LH_CHECK_PREFIX_ "IS_ME check failed: %s (%lu >= %lu) !!!", __func__,          \
                    __LINE__, #a)

/**
 * Fires when a number is outside a range.
 *
 * @param v   the number, taken as unsigned.
 * @param min the lowest one that is in range.
 * @param max the highest one that is in range.
 * @return 1 when it fired, else 0.
 * @errno  kept.
 * @log    `OUT_OF_RANGE check failed: %s is really out of range (%lu %lu %lu) !!!` (the text of
 *         `v`; `min`, the value, `max`).
 * @blocking no.
 * @threads any.
 */
#define OUT_OF_RANGE(v, min, max)                                                                  \
    lh_check_out_of_range_((unsigned long)(v), (unsigned long)(min), (unsigned long)(max),         \
                           __func__, __LINE__, #v)

/**
 * Fires when a condition does not hold.
 *
 * @param c the condition; its text must not hold a percent sign.
 * @return 1 when it fired, else 0.
 * @errno  kept.
 * @log    `IS_NOT: c` with the text of the condition.
 * @blocking no.
 * @threads any.
 */
#define IS_NOT(c) lh_check_(!(c), LH_CHECK_PREFIX_ "IS_NOT: " #c, __func__, __LINE__, NULL, 0, 0, 0)

/**
 * Fires when a call gives anything but 0.
 *
 * @param call the call.
 * @return 1 when it fired, else 0.
 * @errno  kept.
 * @log    `%s failed` (the text of `call`).
 * @blocking no.
 * @threads any.
 */
#define CALL_FAILED(call)                                                                          \
    lh_check_((call) != 0, LH_CHECK_PREFIX_ "%s failed", __func__, __LINE__, #call, 0, 0, 0)

/* Everything below serves the macros above and is not for callers. ------------------------------ */

#ifdef __cplusplus
extern "C" {
#define LH_CHECK_INLINE_ __attribute__((visibility("hidden"))) inline
#define LH_CHECK_COLD_ __attribute__((cold, noinline, visibility("hidden"))) inline
#else
#define LH_CHECK_INLINE_ static inline
#define LH_CHECK_COLD_ __attribute__((cold, noinline, unused)) static
#endif

/* The symbol syslog itself, even where the C library would redirect the call to a variant of it:
   whoever replaces syslog sees every line. */
void lh_check_syslog_(int priority, const char *format, ...) __asm__("syslog")
    __attribute__((format(printf, 2, 3)));

/* What a line's prefix needs, and the errno that must survive the line. */
struct lh_check_frame_ {
    const char *name;
    unsigned long pid;
    int saved_errno;
};

/* Finds the name and pid; errno still holds the failing call's value afterwards. */
LH_CHECK_INLINE_ struct lh_check_frame_ lh_check_frame_begin_(void)
{
    struct lh_check_frame_ frame;
    frame.saved_errno = errno;
    frame.name = lh_process_self_name_get();
    frame.pid = (unsigned long)lh_process_self_pid_get();
    errno = frame.saved_errno;
    return frame;
}

/* The slow path of every check. A format uses as many of the values as it needs. */
LH_CHECK_COLD_ void lh_check_log_(const char *format, const char *function, int line,
                                  const char *text, unsigned long first, unsigned long second,
                                  unsigned long third)
{
    struct lh_check_frame_ frame = lh_check_frame_begin_();
    lh_check_syslog_(LOG_ERR, format, frame.name, frame.pid, function, line, text, first, second,
                     third);
    errno = frame.saved_errno;
}

LH_CHECK_INLINE_ int lh_check_(int fired, const char *format, const char *function, int line,
                               const char *text, unsigned long first, unsigned long second,
                               unsigned long third)
{
    if (__builtin_expect(fired, 0)) {
        lh_check_log_(format, function, line, text, first, second, third);
        return 1;
    }
    return 0;
}

/* Is the promoted type of the expression signed? A constant; the expression is not evaluated. */
#define LH_CHECK_SIGNED_(a) ((__typeof__((a) + 0))-1 < (__typeof__((a) + 0))1)

#define LH_CHECK_COMPARE_(name, op)                                                                \
    LH_CHECK_INLINE_ int lh_check_##name##_(int is_signed, unsigned long a, unsigned long b,       \
                                            const char *format, const char *function, int line,    \
                                            const char *text)                                      \
    {                                                                                              \
        int fired = is_signed ? (long)a op(long) b : a op b;                                       \
        return lh_check_(fired, format, function, line, text, a, b, 0);                            \
    }
LH_CHECK_COMPARE_(EQ, ==)
LH_CHECK_COMPARE_(NE, !=)
LH_CHECK_COMPARE_(LT, <)
LH_CHECK_COMPARE_(MT, >)
#undef LH_CHECK_COMPARE_

#define LH_CHECK_PAIR_(name, op, a, text, b)                                                       \
    lh_check_##name##_(LH_CHECK_SIGNED_(a), (unsigned long)(a), (unsigned long)(b),                \
                       LH_CHECK_SIGNED_(a) ? LH_CHECK_PREFIX_                                      \
                           "IS_" #name " check failed: %s (%ld " #op " %ld) !!!"                   \
                                           : LH_CHECK_PREFIX_                                      \
                           "IS_" #name " check failed: %s (%lu " #op " %lu) !!!",                  \
                       __func__, __LINE__, text)

LH_CHECK_INLINE_ int lh_check_is_me_(unsigned long a, unsigned long b, const char *format,
                                     const char *function, int line, const char *text)
{
    return lh_check_(a >= b, format, function, line, text, a, b, 0);
}

LH_CHECK_INLINE_ int lh_check_out_of_range_(unsigned long value, unsigned long min,
                                            unsigned long max, const char *function, int line,
                                            const char *text)
{
    return lh_check_(value < min || value > max,
                     LH_CHECK_PREFIX_
                     "OUT_OF_RANGE check failed: %s is really out of range (%lu %lu %lu) !!!",
                     function, line, text, min, value, max);
}

#ifdef __cplusplus
}
#endif

#endif
