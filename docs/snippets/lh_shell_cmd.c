/* A command with a value from outside, under supervision. */
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <lh_shell_cmd.h>
#include <lh_timer.h>

/* Blanks and control characters are not escaped: a value with one of
 * them is refused. */
static int is_safe(const char *value)
{
    for (; *value != '\0'; value++) {
        unsigned char c = (unsigned char)*value;
        if (isspace(c) || iscntrl(c))
            return 0;
        if (lh_shell_cmd_chr_need_to_be_escaped(c))
            printf("%c will be escaped\n", c);
    }
    return 1;
}

static int on_progress(void *arg)
{
    ++*(int *)arg;
    /* anything else gives the run up, and leaves the child behind */
    return 0;
}

static int print_value(const char *value)
{
    int ticks = 0;
    char *escaped = NULL;
    const pid_t self = getpid();
    lh_shell_cmd_run_opts opts = {0};
    opts.timer_max_period = lh_timer_s_to_timespec(30);
    opts.timer_progress_period = lh_timer_ms_to_timespec(100);
    opts.timer_progress_cb = on_progress;
    opts.timer_progress_cb_arg = &ticks;

    if (!is_safe(value) || lh_shell_cmd_escaping(value, &escaped) != 0)
        return -1;
    fflush(stdout);
    /* Null: there was nothing to escape in it. */
    int rc = lh_shell_cmd_run(&opts, "echo %s",
                              escaped != NULL ? escaped : value);
    if (rc != 0 && getpid() != self)
        /* without /bin/sh the call returns in the child, too */
        _exit(127);
    free(escaped);
    return rc == 0 ? opts.exit_code : -1;
}

/* Another language, other rules: a backslash before each quote of a
 * string. */
static void show_quoted(const char *value)
{
    char *quoted = NULL;
    if (lh_shell_cmd_chrs_escape(value, "\\", "\"", &quoted) == 0)
        printf("\"%s\"\n", quoted != NULL ? quoted : value);
    free(quoted);
}

int main(void)
{
    const char *chrs = NULL;
    if (lh_shell_cmd_chrs_need_to_be_escaped_get(&chrs) == 0)
        printf("escaped are %s\n", chrs);
    printf("exit code %d\n", print_value("a;reboot"));
    show_quoted("5\" disk");
    return 0;
}

/* Prints:
 * escaped are !"$&'()*;<=>?\`|
 * ; will be escaped
 * a;reboot
 * exit code 0
 * "5\" disk"
 */
