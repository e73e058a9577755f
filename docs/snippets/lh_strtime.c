/* Times as people read them. */
#include <stdio.h>

#include <lh_strtime.h>

static void show_uptime(unsigned seconds)
{
    char text[15]; /* enough for every uptime */
    if (lh_str_form_uptime(seconds, text, sizeof(text)) == 0)
        printf("up %s\n", text);
}

/* A text that is no time gives 0 as well: only tm_sec, which comes last,
 * tells. */
static int parse(const char *text, struct tm *time)
{
    time->tm_sec = -1;
    return lh_strptime(text, time) == 0 && time->tm_sec != -1 ? 0 : -1;
}

int main(void)
{
    char text[20];
    struct tm time = {0};
    show_uptime(90061);
    printf("%d\n", parse("yesterday", &time));
    if (parse("2024-03-05 07:08:09", &time) == 0 &&
        lh_strtime(text, sizeof(text), &time) == 0)
        printf("%s\n", text);
    return 0;
}

/* Prints:
 * up 01,01:01:01
 * -1
 * 2024-03-05 07:08:09
 */
