/*
 * supervised_command: computes the checksum of a file with a shell command, under supervision.
 *
 * Shows lh_shell_cmd_run() (lh_shell_cmd.h): progress on the terminal, a limit that ends the
 * command and cleans up behind it, the command's exit code, and how a value from outside gets into
 * a command line without becoming a part of the language.
 *
 * Build: cc -std=c11 supervised_command.c -o supervised_command -lVYThelpers
 */
#define _GNU_SOURCE 1

#include <ctype.h>
#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "lh_shell_cmd.h"
#include "lh_timer.h"

enum { LIMIT_DEFAULT = 60, LIMIT_MAX = 86400, PROGRESS_MS = 200, EXIT_LIMIT = 124 };

static const char usage_line[] = "usage: supervised_command [-l SECONDS] FILE\n";

static const char help[] =
    "\n"
    "Computes the checksum of FILE with the command cksum, prints a dot on standard error\n"
    "for every tick of progress, and gives up after a limit.\n"
    "\n"
    "  -l SECONDS  the limit, 1 to 86400; 60 unless named\n"
    "  -h, --help  show this text\n"
    "\n"
    "Ends with the command's exit code, with 124 when the limit was reached, with 2 for wrong\n"
    "arguments, with 1 when the command could not be run or was ended by a signal.\n";

struct run {
    int32_t pid; /* of the child while it runs: the library keeps it up to date */
    bool limit_reached;
    bool dots;
};

static int on_progress(void *arg)
{
    struct run *run = arg;
    fputc('.', stderr);
    run->dots = true;
    return 0; /* anything else would give the run up, and leave the child running */
}

/* The limit is reached. With this callback set, the library leaves the child to it: ended here for
   certain, so that the wait ends, and waited for, so that no zombie stays. */
static int on_limit(void *arg)
{
    struct run *run = arg;
    run->limit_reached = true;
    kill(run->pid, SIGKILL);
    while (waitpid(run->pid, NULL, 0) < 0 && errno == EINTR)
        ;
    return -1; /* the result of the run */
}

/*
 * Escaping puts a backslash before the characters with a meaning to the shell, all but these: blanks
 * and control characters would still cut the value into words or commands, and brackets and braces
 * would still be a pattern. A value with one of them is refused.
 */
static bool can_be_escaped(const char *value)
{
    for (const char *c = value; *c != '\0'; c++) {
        if (isspace((unsigned char)*c) || iscntrl((unsigned char)*c) || strchr("[]{}", *c) != NULL)
            return false;
    }
    return true;
}

static int run_cksum(struct run *run, const char *file, int limit)
{
    lh_shell_cmd_run_opts opts = {0};
    char *escaped = NULL;
    const pid_t self = getpid();

    opts.pid = &run->pid;
    opts.timer_max_period = lh_timer_s_to_timespec(limit);
    opts.timer_max_cb = on_limit;
    opts.timer_max_cb_arg = run;
    opts.timer_progress_period = lh_timer_ms_to_timespec(PROGRESS_MS);
    opts.timer_progress_cb = on_progress;
    opts.timer_progress_cb_arg = run;

    if (lh_shell_cmd_escaping(file, &escaped) != 0)
        return 1;
    /* "exec": the command takes the shell's place, so that the pid is the command's own and the
       limit ends it. "./": no file name is taken for an option, a comment or a home directory. */
    int rc = lh_shell_cmd_run(&opts, "exec cksum %s%s", file[0] == '/' ? "" : "./",
                              escaped != NULL ? escaped : file); /* null: nothing to escape */
    if (rc != 0 && getpid() != self)
        _exit(127); /* without /bin/sh the call returns in the child, too */
    free(escaped);
    if (run->dots)
        fputc('\n', stderr);
    if (run->limit_reached) {
        fprintf(stderr, "supervised_command: gave up after %d s\n", limit);
        return EXIT_LIMIT;
    }
    if (rc == 0)
        return opts.exit_code;
    /* It was not run, and the library has said why; or a signal ended it, and nobody has said so. */
    fputs("supervised_command: cksum did not end by itself\n", stderr);
    return 1;
}

static int usage(void)
{
    fputs(usage_line, stderr);
    return 2;
}

int main(int argc, char **argv)
{
    static const struct option options[] = {{"help", no_argument, NULL, 'h'}, {NULL, 0, NULL, 0}};
    long limit = LIMIT_DEFAULT;
    char *end;
    int option;

    while ((option = getopt_long(argc, argv, "+l:h", options, NULL)) != -1) {
        switch (option) {
        case 'h':
            fputs(usage_line, stdout);
            fputs(help, stdout);
            return 0;
        case 'l':
            limit = strtol(optarg, &end, 10);
            if (*end == '\0' && limit >= 1 && limit <= LIMIT_MAX)
                break;
            fprintf(stderr, "supervised_command: -l %s: a number from 1 to %d is needed\n", optarg,
                    LIMIT_MAX);
            return usage();
        default:
            return usage();
        }
    }
    if (argc - optind != 1 || argv[optind][0] == '\0')
        return usage();
    if (!can_be_escaped(argv[optind])) {
        fprintf(stderr, "supervised_command: a name with blanks, control characters, brackets or "
                        "braces is not handed to the shell\n");
        return 2;
    }

    struct run run = {0};
    openlog("supervised_command", LOG_PID | LOG_PERROR, LOG_USER);
    return run_cksum(&run, argv[optind], (int)limit);
}
