/*
 * daemon_skeleton: a daemon that does nothing yet. Loop, timer, signals and pid file are there;
 * what on_tick() and on_reload() do is yours.
 *
 * Shows the poll loop (lh_poll_ctx.h), timer descriptors (lh_timer.h), signals as a descriptor of
 * the same loop, and the pid file that keeps a second instance out (lh_process.h).
 *
 * It stays in the foreground, as service managers want it. A daemon that goes to the background does
 * so before its first call of this library: the process id is found once and kept.
 *
 * Build: cc -std=c11 daemon_skeleton.c -o daemon_skeleton -lVYThelpers
 */
#define _GNU_SOURCE 1

#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <syslog.h>
#include <unistd.h>

#include "lh_close.h"
#include "lh_file.h"
#include "lh_poll_ctx.h"
#include "lh_process.h"
#include "lh_timer.h"

enum { PERIOD_MS_DEFAULT = 1000, PERIOD_MS_MAX = 3600000 };

static const char usage_line[] = "usage: daemon_skeleton [-p PIDFILE] [-t MILLISECONDS]\n";

static const char help[] =
    "\n"
    "A daemon that only counts. Prints a line for every tick of its timer and for every\n"
    "SIGHUP; SIGINT and SIGTERM end it.\n"
    "\n"
    "  -p PIDFILE       /run/daemon_skeleton.pid unless named\n"
    "  -t MILLISECONDS  from tick to tick, 1 to 3600000; 1000 unless named\n"
    "  -h, --help       show this text\n"
    "\n"
    "Ends with 0 after a signal, with 1 when it cannot run or runs already, with 2 for\n"
    "wrong arguments.\n";

struct skeleton {
    lh_poll_ctx loop;
    const char *pid_file;
    long period_ms;
    unsigned long ticks;
};

/* Yours ----------------------------------------------------------------------------------------- */

static int on_tick(void *arg)
{
    struct skeleton *daemon = arg;
    printf("tick %lu\n", ++daemon->ticks);
    fflush(stdout);
    return 0;
}

static void on_reload(struct skeleton *daemon)
{
    printf("reload after %lu ticks\n", daemon->ticks);
    fflush(stdout);
}

/* The loop -------------------------------------------------------------------------------------- */

/* Consumes the expiration, without which the descriptor would stay readable; several missed ones
   come as one. */
static int on_timer(int fd, void *arg)
{
    return lh_timer_fd_handle(fd, on_tick, arg);
}

static int on_signal(int fd, void *arg)
{
    struct skeleton *daemon = arg;
    struct signalfd_siginfo signal;

    if (read(fd, &signal, sizeof(signal)) != (ssize_t)sizeof(signal))
        return 0; /* there was none; the loop does not look at a handler's result */
    if (signal.ssi_signo == SIGHUP)
        on_reload(daemon);
    else
        lh_poll_ctx_main_loop_break(&daemon->loop);
    return 0;
}

/* The signals arrive as data on a descriptor; blocked, they do nothing else. Programs that the
   daemon starts inherit the block: they have to lift it for themselves. */
static int open_signals(void)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGHUP);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    if (sigprocmask(SIG_BLOCK, &signals, NULL) != 0)
        return -1;
    return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

/* Registers the descriptor, or closes it: either way it has an owner afterwards. */
static int add(struct skeleton *daemon, const char *name, int fd, lh_poll_ctx_fd_cb cb)
{
    if (fd < 0)
        return -1;
    if (lh_poll_ctx_fd_add(&daemon->loop, name, fd, cb, daemon) == 0)
        return 0;
    lh_close(&fd);
    return -1;
}

/* The pid file ---------------------------------------------------------------------------------- */

/* Is the process of the pid file alive, and one of ours? A pid file that was left behind may name a
   process that has nothing to do with this daemon. Two that start in the same moment are not kept
   apart: that is the supervisor's part, or a lock's. */
static bool is_running(const char *pid_file)
{
    if (!lh_file_is_exist(pid_file)) /* reading a missing one would log an error */
        return false;
    int pid = lh_read_pid_file(pid_file);
    if (pid <= 0 || pid == getpid() || (kill(pid, 0) != 0 && errno == ESRCH))
        return false;
    const char *own_name = lh_process_self_name_get(); /* first: it may use the other's buffer */
    if (strcmp(lh_process_name_get_by_pid(pid), own_name) != 0)
        return false;
    fprintf(stderr, "daemon_skeleton: running already as %d, says %s\n", pid, pid_file);
    return true;
}

/* ----------------------------------------------------------------------------------------------- */

static int run(struct skeleton *daemon)
{
    if (is_running(daemon->pid_file))
        return 1;
    /* First the signals: from here on none of them ends the daemon halfway. */
    if (add(daemon, "signals", open_signals(), on_signal) != 0 ||
        add(daemon, "timer", lh_timer_fd_create(lh_timer_ms_to_timespec(daemon->period_ms)),
            on_timer) != 0 ||
        lh_process_create_pid_file(daemon->pid_file) != 0) {
        fprintf(stderr, "daemon_skeleton: cannot start: %s\n", strerror(errno));
        return 1;
    }
    lh_poll_ctx_main_loop(&daemon->loop);
    unlink(daemon->pid_file);
    /* The loop also ends when polling fails; only a signal is a good end. */
    return daemon->loop.stop != 0 ? 0 : 1;
}

static int usage(void)
{
    fputs(usage_line, stderr);
    return 2;
}

/* Returns -1 to go on, else the exit status. */
static int parse_arguments(struct skeleton *daemon, int argc, char **argv)
{
    static const struct option options[] = {{"help", no_argument, NULL, 'h'}, {NULL, 0, NULL, 0}};
    char *end;
    int option;

    while ((option = getopt_long(argc, argv, "+p:t:h", options, NULL)) != -1) {
        switch (option) {
        case 'h':
            fputs(usage_line, stdout);
            fputs(help, stdout);
            return 0;
        case 'p':
            daemon->pid_file = optarg;
            break;
        case 't':
            daemon->period_ms = strtol(optarg, &end, 10);
            if (*end == '\0' && daemon->period_ms >= 1 && daemon->period_ms <= PERIOD_MS_MAX)
                break;
            fprintf(stderr, "daemon_skeleton: -t %s: a number from 1 to %d is needed\n", optarg,
                    PERIOD_MS_MAX);
            return usage();
        default:
            return usage();
        }
    }
    return optind == argc ? -1 : usage();
}

int main(int argc, char **argv)
{
    struct skeleton daemon = {.pid_file = "/run/daemon_skeleton.pid",
                              .period_ms = PERIOD_MS_DEFAULT};

    int status = parse_arguments(&daemon, argc, argv);
    if (status >= 0)
        return status;
    /* The library writes to the system log but leaves its identity to the daemon. */
    openlog("daemon_skeleton", LOG_PID | LOG_PERROR, LOG_DAEMON);
    status = run(&daemon);
    lh_poll_ctx_close_all(&daemon.loop);
    lh_poll_ctx_free(&daemon.loop);
    return status;
}
