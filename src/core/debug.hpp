// Debug lines: written to the board's debug log, and only while their flag is on.
#pragma once

#include "core/errno_saver.hpp"
#include "core/log.hpp"
#include "core/platform.hpp"

namespace vyt {

// The flags of this library in the debug log, by number and name.
struct debug_flag {
    int number;
    const char *name;
};
inline constexpr debug_flag inotify_dbg = {0, "INOTIFY_DBG"};
inline constexpr debug_flag vrrp_dbg = {1, "VRRP_DBG"};

inline constexpr int helpers_subsystem = 99;
inline constexpr const char *debug_tag = "VYT_HELPERS";
inline constexpr const char *debug_level = "D";

inline bool debug_is_on(const debug_flag &flag)
{
    const errno_saver saver;
    return (SYSLOG_flag_get(helpers_subsystem, flag.number) & 0xff) != 0;
}

// The format carries the whole line; the prefix's fields come first among its arguments.
template <class... Args>
[[gnu::cold, gnu::noinline]] void debug_write(const debug_flag &flag, const char *format,
                                              Args... args)
{
    const lh_check_frame_ frame = lh_check_frame_begin_();
    SYSLOG_message(LOG_DEBUG, format, debug_tag, debug_level, flag.name, frame.name, frame.pid,
                   args...);
    errno = frame.saved_errno;
}

#define DEBUG_WRITE_(flag, format, check_args, ...)                                                \
    do {                                                                                           \
        if (false)                                                                                 \
            ::vyt::check_format check_args;                                                        \
        if (::vyt::debug_is_on(flag)) [[unlikely]]                                                 \
            ::vyt::debug_write(flag, "%%%s-%s-%s: <%s(%lu)> " format __VA_OPT__(, ) __VA_ARGS__);  \
    } while (false)

// %VYT_HELPERS-D-FLAG: <process(pid)> <function> message
// The _AS forms are for helpers that speak for their caller.
#define DEBUG_LINE_AS(flag, function, format, ...)                                                 \
    DEBUG_WRITE_(flag, "<%s> " format, (format __VA_OPT__(, ) __VA_ARGS__),                        \
                 function __VA_OPT__(, ) __VA_ARGS__)
#define DEBUG_LINE(flag, format, ...)                                                              \
    DEBUG_LINE_AS(flag, __func__, format __VA_OPT__(, ) __VA_ARGS__)

// %VYT_HELPERS-D-FLAG: <process(pid)> <function:line> message
#define DEBUG_LINE_AT_AS(flag, function, format, ...)                                              \
    DEBUG_WRITE_(flag, "<%s:%d> " format, (format __VA_OPT__(, ) __VA_ARGS__), function,           \
                 __LINE__ __VA_OPT__(, ) __VA_ARGS__)
#define DEBUG_LINE_AT(flag, format, ...)                                                           \
    DEBUG_LINE_AT_AS(flag, __func__, format __VA_OPT__(, ) __VA_ARGS__)

// %VYT_HELPERS-D-FLAG: <process(pid)> message
#define DEBUG_LINE_BARE(flag, format, ...)                                                         \
    DEBUG_WRITE_(flag, format, (format __VA_OPT__(, ) __VA_ARGS__), __VA_ARGS__)

} // namespace vyt
