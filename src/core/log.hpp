// Error lines with a text of their own. The checks of lh_check.h write the others.
#pragma once

#include "core/errno_saver.hpp"
#include "lh_check.h"

namespace vyt {

// Never defined: lets the compiler hold a message against its arguments.
[[gnu::format(printf, 1, 2)]] void check_format(const char *format, ...);

// The slow path of LOG_ERROR: finds the name and pid, hands the whole format to syslog and leaves
// errno as it was, so that the arguments, a %m and the caller all see the failing call's value.
template <class... Args>
[[gnu::cold, gnu::noinline]] void log_error(const char *format, const char *function, int line,
                                            Args... args)
{
    const lh_check_frame_ frame = lh_check_frame_begin_();
    lh_check_syslog_(LOG_ERR, format, frame.name, frame.pid, function, line, args...);
    errno = frame.saved_errno;
}

// One row of the error log under a chosen function name, for helpers that speak for their caller.
#define LOG_ERROR_AS(function, format, ...)                                                        \
    do {                                                                                           \
        if (false)                                                                                 \
            ::vyt::check_format(format __VA_OPT__(, ) __VA_ARGS__);                                \
        ::vyt::log_error(LH_CHECK_PREFIX_ format, function, __LINE__ __VA_OPT__(, ) __VA_ARGS__);  \
    } while (false)

// One row of the error log: LOG_ERROR("open failed for '%s', %s", path, strerror(errno));
#define LOG_ERROR(format, ...) LOG_ERROR_AS(__func__, format __VA_OPT__(, ) __VA_ARGS__)

// The check family for operands whose line must show another text, or another function's name.
#define PTR_IS_NULL_AS(function, p, text)                                                          \
    lh_check_((p) == nullptr, LH_CHECK_PREFIX_ "PTR_IS_NULL: %s", function, __LINE__, text, 0, 0, 0)
#define IS_ME_TEXT(a, text, b)                                                                     \
    lh_check_is_me_((unsigned long)(a), (unsigned long)(b),                                        \
                    LH_CHECK_PREFIX_ "IS_ME check failed: %s (%lu >= %lu) !!!", __func__,          \
                    __LINE__, text)
#define OUT_OF_RANGE_AS(function, v, text, min, max)                                               \
    lh_check_out_of_range_((unsigned long)(v), (unsigned long)(min), (unsigned long)(max),         \
                           function, __LINE__, text)

} // namespace vyt
