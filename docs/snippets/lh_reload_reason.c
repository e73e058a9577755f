/* The reason is on disk before the board goes down. */
#include <stdio.h>

#include <lh_file.h>
#include <lh_reload_reason.h>

static int give_reason(const char *reason, const char *path)
{
    /* true: with the time */
    return lh_reload_reason_write(reason, path, false);
}

int main(void)
{
    char line[64];
    if (give_reason("Configuration has changed", "reason") != 0 ||
        lh_file_read_line("reason", line, sizeof(line)) != 0)
        return 1;
    printf("%s\n", line);
    return 0;
}

/* Prints:
 * Configuration has changed
 */
