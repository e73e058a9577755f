/*
 * Stand-in for the board's debug-log library.
 *
 * Every debug flag is off, until the environment variable VYT_DEBUG names it: a list of flag
 * numbers of subsystem 99 (this library), separated by commas, or the names INOTIFY_DBG and
 * VRRP_DBG. A line of a flag that is on goes to the system log.
 */
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

enum { HELPERS_SUBSYSTEM = 99 };

static const char *const flag_names[] = {"INOTIFY_DBG", "VRRP_DBG"};

static int item_names_flag(const char *item, size_t length, int flag)
{
    char number[16];
    snprintf(number, sizeof(number), "%d", flag);
    if (strlen(number) == length && memcmp(item, number, length) == 0)
        return 1;
    if (flag < 0 || (size_t)flag >= sizeof(flag_names) / sizeof(flag_names[0]))
        return 0;
    return strlen(flag_names[flag]) == length && memcmp(item, flag_names[flag], length) == 0;
}

int SYSLOG_flag_get(int subsystem, int flag)
{
    const char *item = getenv("VYT_DEBUG");
    if (item == NULL || subsystem != HELPERS_SUBSYSTEM)
        return 0;
    while (*item != '\0') {
        size_t length = strcspn(item, ",");
        if (item_names_flag(item, length, flag))
            return 1;
        item += length;
        item += *item == ',';
    }
    return 0;
}

void SYSLOG_message(int priority, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}
